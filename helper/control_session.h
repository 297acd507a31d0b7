// The lasting mode of the helper: one request a line in, one reply a line out.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "helper/helper_environment.h"

namespace ferovane {

// Words of a command line that asks for a session: the program path, "serve", and the owner's
// process id and user id.
inline constexpr std::size_t kServeArguments = 4;

// Authenticates the caller, then serves its requests until "shutdown", end of input, the owner's
// death or a stop signal; each of these ends with the fans handed back. Returns when the session
// ended normally, throws ScopeError when its channel failed. May instead end the process, with
// status 0, from the watchdog's thread.
void runControlSession(const std::vector<std::string>& args, const HelperEnvironment& environment);

}  // namespace ferovane
