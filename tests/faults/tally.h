// What a sweep has run, by kind of fault, and what it found.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace ferovane::testing {

class Tally {
public:
    struct Result {
        bool fired = false;
        bool differed = false;    // the run went another way than without the fault
        bool leftManual = false;  // a fan could not be given back, and that was told
        bool liedTo = false;      // a fan was read as automatic that is not
    };
    void count(const std::string& kind, const Result& result);
    void complain(const std::string& caseName, const std::vector<std::string>& complaints);

    std::size_t cases() const;
    std::size_t differing() const;
    std::size_t of(const std::string& kind) const;
    const std::vector<std::string>& failures() const { return failures_; }
    void print(const std::string& title) const;

private:
    struct Counts {
        std::size_t cases = 0, fired = 0, differed = 0, left = 0, lied = 0;
    };
    std::map<std::string, Counts> byKind_;
    std::vector<std::string> failures_;
    std::size_t failed_ = 0;
};

}  // namespace ferovane::testing
