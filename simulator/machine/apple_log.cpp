// On macOS, in the helper that is linked with the simulated Mac: the machine's log takes the lines
// instead of the system's, and none takes them without a machine. Elsewhere the stand-in of syslog
// does this.
#include <syslog.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include "simulator/machine/machine.h"

namespace {

constexpr std::size_t kLongestLine = 1024;

}  // namespace

extern "C" void syslog(int, const char* format, ...) {
    simulator::Machine* machine = simulator::attachedMac();
    if (machine == nullptr) {
        return;
    }
    std::array<char, kLongestLine> line{};
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    machine->log(line.data());
}
