// One thing that goes wrong at the k-th call into the outside world.
#pragma once

#include <functional>
#include <string>

namespace ferovane::testing {

struct CallFaults {
    int calls = 0;
    int strikeAt = 0;                                     // counted from 1; 0 for never
    std::function<void(const std::string& call)> strike;  // may throw
    bool garbage = false;  // set by a strike: the next value read is nonsense

    // A call is known by what is done, and the key it is done to: "write F0Md".
    void count(const char* act) {
        if (++calls == strikeAt) {
            strike(act);
        }
    }
    void count(const char* act, const std::string& key) {
        if (++calls == strikeAt) {
            strike(std::string(act) + " " + key);
        }
    }
};

}  // namespace ferovane::testing
