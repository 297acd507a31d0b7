// A few fans' indices, kept without memory of their own to be had.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "core/hardware/smc_verification.h"

namespace ferovane {

// What it can need is had when it is made: no operation fails on the indices that fans have.
class FanSet {
public:
    FanSet() { fans_.reserve(SMCVerification::kFanIndexLimit); }

    void insert(int fan) {
        const auto place = std::lower_bound(fans_.begin(), fans_.end(), fan);
        if (place == fans_.end() || *place != fan) {
            fans_.insert(place, fan);
        }
    }
    std::size_t erase(int fan) { return std::erase(fans_, fan); }
    void clear() { fans_.clear(); }

    std::size_t count(int fan) const {
        return std::binary_search(fans_.begin(), fans_.end(), fan) ? 1 : 0;
    }
    bool empty() const { return fans_.empty(); }
    const std::vector<int>& ascending() const { return fans_; }

private:
    std::vector<int> fans_;
};

}  // namespace ferovane
