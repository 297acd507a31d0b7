// simulated-mac: makes, shows and disturbs simulated Macs.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include "simulator/tools/command.h"

namespace {

using namespace simulator::tools;

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

struct Command {
    std::string_view name;
    int (*run)(const Words& words);
    std::string_view usage;  // "" for the machine's own tools, which the scripts in its root start
    std::string_view help;
};

constexpr std::array kCommands = {
    Command{"models", listModels, "models", "the built-in machines, name first"},
    Command{"create", create, "create DIR --model NAME | --keys FILE.csv [NAME=VALUE …]",
            "make a machine; a key dump has the header key,type,size,attributes,bytes,result;\n"
            "the settings are those of \"set\", such as model=, brand=, processors="},
    Command{"show", show, "show DIR [--json] [--keys]", "keys, fans, who holds them, heat, power"},
    Command{"watch", watch, "watch DIR [--for SECONDS]", "the same, live, until interrupted"},
    Command{"set", set, "set DIR NAME=VALUE …", "change the world: \"set --help\" lists the names"},
    Command{"write", write, "write DIR KEY VALUE", "write a key as another program would"},
    Command{"fault", fault, "fault DIR KIND [NAME=VALUE …] | list | clear",
            "let something go wrong: \"fault --help\" lists the kinds"},
    Command{"journal", journal, "journal DIR [--writes]",
            "what was done to the machine: number, seconds, process, what"},
    Command{"run", run, "run DIR -- COMMAND …", "run a command attached to the machine"},
    Command{"pmset", pmset, "", ""},
    Command{"kmutil", kmutil, "", ""},
    Command{"sysctl", sysctl, "", ""},
    Command{"ioreg", ioreg, "", ""},
    Command{"powermetrics", powermetrics, "", ""},
};

void printHelp(std::FILE* stream) {
    std::fputs("Usage: simulated-mac COMMAND …\n\n", stream);
    for (const Command& command : kCommands) {
        if (command.usage.empty()) {
            continue;
        }
        std::fprintf(stream, "  %s\n", command.usage.data());
        for (const char* line = command.help.data(); line != nullptr;) {
            const char* end = std::strchr(line, '\n');
            const int size =
                end != nullptr ? static_cast<int>(end - line) : static_cast<int>(std::strlen(line));
            std::fprintf(stream, "      %.*s\n", size, line);
            line = end != nullptr ? end + 1 : nullptr;
        }
    }
}

int runCommand(const Command& command, const Words& words) {
    try {
        return command.run(words);
    } catch (const UsageError& error) {
        std::fprintf(stderr, "simulated-mac %s: %s\n", command.name.data(), error.what());
        if (!command.usage.empty()) {
            std::fprintf(stderr, "Usage: simulated-mac %s\n", command.usage.data());
        }
        return kWrongUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "simulated-mac %s: %s\n", command.name.data(), error.what());
        return kFailed;
    }
}

}  // namespace

int main(int count, char** arguments) {
    const Words words(arguments + std::min(count, 2), arguments + count);
    const std::string_view name = count > 1 ? arguments[1] : "";
    if (name == "--help" || name == "-h" || name == "help") {
        printHelp(stdout);
        return 0;
    }
    for (const Command& command : kCommands) {
        if (command.name == name) {
            return runCommand(command, words);
        }
    }
    if (!name.empty()) {
        std::fprintf(stderr, "simulated-mac: unknown command \"%s\"\n", arguments[1]);
    }
    printHelp(stderr);
    return kWrongUsage;
}
