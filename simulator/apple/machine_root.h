// Where the host keeps the files of the attached machine.
#pragma once

#include <string>

namespace simulator {

// The path below the attached machine's root when the path is absolute; the path itself when it is
// relative or no machine is attached. Any thread.
std::string pathOnHost(const std::string& path);

}  // namespace simulator
