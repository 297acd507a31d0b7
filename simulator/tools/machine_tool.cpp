#include "simulator/tools/machine_tool.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "simulator/machine/faults.h"
#include "simulator/machine/machine.h"

namespace simulator::tools {
namespace {

constexpr std::size_t kMegabyte = 1U << 20U;

[[noreturn]] void hang() {
    while (true) {
        ::pause();
    }
}

void printMegabyte() {
    const std::string line = std::string(79, 'x') + "\n";
    for (std::size_t printed = 0; printed < kMegabyte; printed += line.size()) {
        std::fputs(line.c_str(), stdout);
    }
}

}  // namespace

MachineTool::MachineTool(const char* name, const Words& words)
    : name_(name),
      arguments_(words.begin() + (words.empty() ? 0 : 1), words.end()),
      mac_(openMachineDirectory(directoryIn(words))) {
    strikeFaults();
}

void MachineTool::strikeFaults() {
    const auto struck = [this](FaultKind kind) {
        return mac_.machine().locked([this, kind](World& world) {
            const FaultRecord* fault = Faults::strikeTool(world, kind, name_);
            return fault != nullptr ? std::optional(*fault) : std::nullopt;
        });
    };
    if (struck(FaultKind::kToolGarbage)) {
        std::fputs("\xFF\xFE\x80 garbage \xC3\x28\n", stdout);
    }
    if (struck(FaultKind::kToolMegabyte)) {
        printMegabyte();
    }
    std::fflush(stdout);
    if (struck(FaultKind::kToolIgnoresSigterm)) {
        std::signal(SIGTERM, SIG_IGN);
        hang();
    }
    if (struck(FaultKind::kToolHangs)) {
        hang();
    }
    if (const auto fault = struck(FaultKind::kToolFails)) {
        std::fprintf(stderr, "%s\n", fault->text);
        std::exit(finish(fault->code != 0 ? fault->code : 1));
    }
}

bool MachineTool::privileged() {
    return mac_.value(Property::kPrivileged).value_or(::geteuid() == 0 ? 1 : 0) != 0;
}

bool MachineTool::withoutEffect() {
    return mac_.machine().locked([this](World& world) {
        return Faults::strikeTool(world, FaultKind::kToolNoEffect, name_) != nullptr;
    });
}

int MachineTool::finish(int status) {
    std::fflush(stdout);
    std::string line = "tool " + name_;
    for (const std::string& argument : arguments_) {
        line += " " + argument;
    }
    line += " -> exit " + std::to_string(status);
    mac_.machine().locked([&line](World& world) { world.noteProcess(line); });
    return status;
}

}  // namespace simulator::tools
