#include <csignal>

#include "helper/commands.h"
#include "helper/standard_streams.h"

int main(int argc, char** argv) {
    ferovane::occupyStandardDescriptors();
    // Whoever starts us may ignore the end of children, and that is inherited: no tool's exit
    // status could be had then.
    std::signal(SIGCHLD, SIG_DFL);
    // A reader that is gone and a file that may not grow are failed writes, which are told like any
    // other failure, and not our end.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    return ferovane::runHelper({argv, argv + argc}, ferovane::productionEnvironment());
}
