// The helper's entry: which command an argument list names, who may run it, how it ends.
#pragma once

#include <string>
#include <vector>

#include "helper/helper_environment.h"

namespace ferovane {

// Runs the command that the arguments name (program path first) and returns the exit status:
// 0 on success, 1 after any failure, whose text stands on the error descriptor. Never throws.
int runHelper(const std::vector<std::string>& args, const HelperEnvironment& environment) noexcept;

}  // namespace ferovane
