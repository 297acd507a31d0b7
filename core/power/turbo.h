// Switching turbo boost by loading and unloading the driver that disables it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "core/power/process_runner.h"

namespace ferovane {

// 1 turbo-disabling driver loaded, 0 not loaded; absent when the system gives no answer.
std::optional<std::int64_t> turboState();

// What switching turbo needs of the machine.
struct TurboOperations {
    std::function<std::optional<std::int64_t>()> driverState;  // as turboState()
    ToolRunner run;
    std::function<bool(const std::string& path)> bundleQualifies;  // the driver lies at this path
};

// Loads (disable) or unloads the driver unless the state is already right, and returns once the
// state has been read back. Throws with the tool's output when it is not confirmed; whatever the
// tool left is left so.
void setTurbo(bool disable, const TurboOperations& operations);
void setTurbo(bool disable, const ToolRunner& run = ProcessRunner::runner());  // on this machine

}  // namespace ferovane
