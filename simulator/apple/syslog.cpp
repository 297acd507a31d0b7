#define SIMULATOR_HOST_NAMES
#include <syslog.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include "simulator/apple/attached_machine.h"

namespace {

constexpr std::size_t kLongestLine = 1024;

}  // namespace

void simulator_syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    if (simulator::AttachedMachine* machine = simulator::attachedMachine()) {
        std::array<char, kLongestLine> line{};
        std::vsnprintf(line.data(), line.size(), format, arguments);
        machine->log(line.data());
    } else {
        vsyslog(priority, format, arguments);
    }
    va_end(arguments);
}
