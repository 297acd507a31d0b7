// Tables of real machines, built into the program.
#pragma once

#include <string_view>

namespace simulator {

// The content of simulator/models/NAME; throws std::runtime_error when there is no such table.
std::string_view embeddedData(std::string_view name);

}  // namespace simulator
