// The one-shot commands that drive the fans. Each throws a ScopeError on failure.
#pragma once

#include <string>
#include <vector>

#include "helper/helper_environment.h"

namespace ferovane {

// Runs every fan at its rated maximum for at most `duration` seconds, then hands them back.
void coolFans(const std::vector<std::string>& args, double duration,
              const HelperEnvironment& environment);

// Runs every fan on the curve of a profile, or on one given, for at most half an hour, then hands
// them back. The turbo choice of the profile stays.
void runProfile(const std::vector<std::string>& args, const HelperEnvironment& environment);

// Returns every fan to system automatic and confirms it.
void returnFans(const HelperEnvironment& environment);

}  // namespace ferovane
