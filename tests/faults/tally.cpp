#include "tests/faults/tally.h"

#include <cstdio>

namespace ferovane::testing {
namespace {

constexpr std::size_t kMostFailuresKept = 40;

}  // namespace

void Tally::count(const std::string& kind, const Result& result) {
    Counts& counts = byKind_[kind];
    ++counts.cases;
    counts.fired += result.fired;
    counts.differed += result.differed;
    counts.left += result.leftManual;
    counts.lied += result.liedTo;
}

void Tally::complain(const std::string& caseName, const std::vector<std::string>& complaints) {
    for (const std::string& complaint : complaints) {
        ++failed_;
        if (failures_.size() < kMostFailuresKept) {
            failures_.push_back(caseName + "\n    " + complaint);
        }
    }
}

std::size_t Tally::cases() const {
    std::size_t all = 0;
    for (const auto& [kind, counts] : byKind_) {
        all += counts.cases;
    }
    return all;
}

std::size_t Tally::differing() const {
    std::size_t all = 0;
    for (const auto& [kind, counts] : byKind_) {
        all += counts.differed;
    }
    return all;
}

std::size_t Tally::of(const std::string& kind) const {
    const auto found = byKind_.find(kind);
    return found != byKind_.end() ? found->second.cases : 0;
}

void Tally::print(const std::string& title) const {
    std::printf("%s\n  %8s %8s %8s %8s %8s\n", title.c_str(), "cases", "fired", "differed", "left",
                "lied to");
    for (const auto& [kind, counts] : byKind_) {
        std::printf("  %8zu %8zu %8zu %8zu %8zu  %s\n", counts.cases, counts.fired, counts.differed,
                    counts.left, counts.lied, kind.c_str());
    }
    std::printf("  %8zu in all, %zu broken promises\n", cases(), failed_);
}

}  // namespace ferovane::testing
