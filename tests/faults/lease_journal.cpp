#include "tests/faults/lease_journal.h"

#include <unistd.h>

#include <string>

namespace ferovane::testing {
namespace {

constexpr std::uint64_t kPrime = 0x100000001B3;

}  // namespace

void LeaseJournal::put(std::string_view text) {
    for (const char c : text) {
        sum_ = (sum_ ^ static_cast<unsigned char>(c)) * kPrime;
    }
    bytes_ += text.size();
    if (file_ != nullptr) {
        *file_ << text;
    }
}

void LeaseJournal::add(std::string_view line) {
    put(line);
    put("\n");
    ++lines_;
}

void LeaseJournal::addMachineLine(std::string_view line) {
    static const std::string self = " " + std::to_string(::getpid()) + " ";
    const std::size_t at = line.find(self);
    if (at != std::string_view::npos && at == line.find(' ', line.find(' ') + 1)) {
        put(line.substr(0, at));
        put(" helper ");
        line.remove_prefix(at + self.size());
    }
    add(line);
}

}  // namespace ferovane::testing
