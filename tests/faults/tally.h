// What a sweep has run, by kind of fault, and what it found.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace ferovane::testing {

class Tally {
public:
    // differed: the run went another way than without the fault.
    void count(const std::string& kind, bool fired, bool differed, bool leftManual);
    void complain(const std::string& caseName, const std::vector<std::string>& complaints);

    std::size_t cases() const;
    std::size_t differing() const;
    std::size_t of(const std::string& kind) const;
    const std::vector<std::string>& failures() const { return failures_; }
    void print(const std::string& title) const;

private:
    struct Counts {
        std::size_t cases = 0, fired = 0, differed = 0, left = 0;
    };
    std::map<std::string, Counts> byKind_;
    std::vector<std::string> failures_;
    std::size_t failed_ = 0;
};

}  // namespace ferovane::testing
