// What a user is told when something fails.
#pragma once

#include <string>

#include "core/model/scope_error.h"

namespace ferovane::testing {

// The message of the ScopeError that `act` throws; empty when it returns. Anything else it throws
// passes on.
template <class Act>
std::string failureOf(Act&& act) {
    try {
        act();
        return {};
    } catch (const ScopeError& error) {
        return error.message();
    }
}

}  // namespace ferovane::testing
