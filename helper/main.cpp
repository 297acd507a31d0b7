#include <unistd.h>

#include <csignal>
#include <cstring>

#include "helper/commands.h"
#include "helper/guardian_watch.h"
#include "helper/standard_streams.h"

namespace {

// A reader that is gone and a file that may not grow are failed writes, which are told like any
// other failure, and not our end. And no terminal may stop us: fans are held for a bounded time,
// which a stopped process cannot end.
constexpr int kIgnoredSignals[] = {SIGPIPE, SIGXFSZ, SIGTSTP, SIGTTIN, SIGTTOU};

}  // namespace

int main(int argc, char** argv) {
    if (argc == 1 && std::strcmp(argv[0], ferovane::kGuardianName) == 0) {
        return ferovane::keepGuard(STDIN_FILENO, ferovane::productionEnvironment);
    }
    if (!ferovane::occupyStandardDescriptors()) {
        return 1;  // nowhere to say so
    }
    // Whoever starts us may ignore the end of children, and that is inherited: no tool's exit
    // status could be had then.
    std::signal(SIGCHLD, SIG_DFL);
    for (const int signal : kIgnoredSignals) {
        std::signal(signal, SIG_IGN);
    }
    return ferovane::runHelper({argv, argv + argc}, ferovane::productionEnvironment());
}
