// The commands that switch the processor's turbo boost.
#pragma once

#include "helper/helper_environment.h"

namespace ferovane {

// Each prints its confirmation, or throws when the change was not confirmed. A stop signal cuts it
// in: turbo is put back then.
void disableTurbo(const HelperEnvironment& environment);
void enableTurbo(const HelperEnvironment& environment);

}  // namespace ferovane
