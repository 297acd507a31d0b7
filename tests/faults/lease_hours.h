// Leases one after the other on machines that grow warm and cold, with faults at random.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tests/faults/lease_journal.h"

namespace ferovane::testing {

struct LeaseHours {
    double seconds = 0;                           // in which fans were held, the machine awake
    std::size_t runs = 0;                         // of the helper
    std::size_t leases = 0;                       // times that fans were taken
    std::size_t whole = 0;                        // runs that ended with a success
    std::size_t told = 0;                         // runs that left a fan manual, and told so
    std::map<std::string, std::size_t> struck;    // by kind of fault
    std::vector<std::string> complaints;          // promises that were broken
    std::uint64_t sum = 0, bytes = 0, lines = 0;  // of the journal

    void print(std::uint64_t seed) const;
};

// Every machine has a seed of its own, counted up from the first: what went wrong on one is to be
// seen again by that machine's seed alone. journal: where it goes besides being summed up.
LeaseHours simulateLeaseHours(double hours, std::uint64_t seed, std::ostream* journal = nullptr);

}  // namespace ferovane::testing
