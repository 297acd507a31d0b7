// What happened in many leases, line by line: too much to keep, so a sum of it is kept.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

namespace ferovane::testing {

class LeaseJournal {
public:
    // file: where the lines go as well; may be null. It must outlive this.
    explicit LeaseJournal(std::ostream* file) : file_(file) {}

    void add(std::string_view line);  // without its line feed
    // A line of the machine's own journal, without the number of this process.
    void addMachineLine(std::string_view line);

    std::uint64_t sum() const { return sum_; }  // 64-bit FNV-1a of all bytes
    std::uint64_t bytes() const { return bytes_; }
    std::uint64_t lines() const { return lines_; }

private:
    void put(std::string_view text);

    static constexpr std::uint64_t kSumOfNothing = 0xCBF29CE484222325;

    std::ostream* file_;
    std::uint64_t sum_ = kSumOfNothing;
    std::uint64_t bytes_ = 0;
    std::uint64_t lines_ = 0;
};

}  // namespace ferovane::testing
