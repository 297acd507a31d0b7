// The lasting mode of the helper: one request a line in, one reply a line out.
#pragma once

#include <string>
#include <vector>

#include "helper/helper_environment.h"

namespace ferovane {

// Authenticates the caller, then serves its requests until "shutdown", end of input, the owner's
// death or a stop signal; each of these ends with the fans handed back. Returns when the session
// ended normally, throws ScopeError when its channel failed. May instead end the process, with
// status 0, from the watchdog's thread.
void runControlSession(const std::vector<std::string>& args, const HelperEnvironment& environment);

}  // namespace ferovane
