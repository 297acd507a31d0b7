// A fan that was not taken, and not touched either.
#pragma once

#include "core/model/scope_error.h"

namespace ferovane {

// Nothing was written to the fan, so there is nothing of it to be handed back.
class FanRefusal : public ScopeError {
public:
    using ScopeError::ScopeError;
};

}  // namespace ferovane
