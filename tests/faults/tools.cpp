#include "tests/faults/tools.h"

#include <signal.h>

#include <cstddef>
#include <optional>
#include <utility>

#include "tests/faults/turns.h"
#include "tests/faults/wrapped_calls.h"

namespace ferovane::testing {
namespace {

constexpr const char* kTurboExtension = "com.vorandel.DisableTurboBoost";
constexpr int kExited = 8;  // bits by which an exit status is shifted in what waitpid tells

}  // namespace

std::int32_t Tools::start(const std::string& path, const std::vector<std::string>& words,
                          int output) {
    ++runs;
    const auto pid = static_cast<std::int32_t>(kFirstPid + runs);
    const ToolMishap how = std::exchange(mishap, std::nullopt).value_or(lasting);
    const double endsAt = how.hangs ? Turns::kForever : Turns::ofThisThread()->now() + how.seconds;
    processes_[pid] = {path, words, output, how, endsAt};
    return pid;
}

bool Tools::isNew(std::int64_t pid) {
    return !std::exchange(processes_.at(pid).lookedAt, true);
}

bool Tools::hasEnded(std::int64_t pid) {
    Process& process = processes_.at(pid);
    if (!process.ended && process.endsAt <= Turns::ofThisThread()->now()) {
        finish(process);
    }
    return process.ended;
}

int Tools::reap(std::int64_t pid) {
    const int status = processes_.at(pid).status;
    processes_.erase(pid);
    return status;
}

void Tools::signal(std::int64_t pid, int number) {
    const auto found = processes_.find(pid);
    if (found == processes_.end() || found->second.ended) {
        return;
    }
    Process& process = found->second;
    if (number == SIGKILL || (number != SIGCONT && !process.mishap.ignoresTerm)) {
        end(process, number);
    }
}

void Tools::end(Process& process, int status) {
    process.ended = true;
    process.status = status;
}

void Tools::finish(Process& process) {
    std::string text;
    int status = work(process, text);
    if (process.mishap.fails) {
        status = 1;
    }
    if (process.mishap.garbage) {
        text.insert(0, "\xFF\xFE\x00sleep\n", 9);
    }
    if (process.mishap.prints && !text.empty()) {
        writeReally(process.output, text.data(), text.size());
    }
    end(process, status << kExited);
}

int Tools::work(const Process& process, std::string& text) {
    return process.path == "/usr/bin/pmset" ? pmset(process, text) : kmutil(process, text);
}

int Tools::pmset(const Process& process, std::string& text) {
    if (process.words.at(1) == "-g") {
        std::string source;
        for (const auto& setting : mac_.powerSettings()) {
            if (setting.source != source) {
                source = setting.source;
                text += source + ":\n";
            }
            text += " " + setting.name + "   " + setting.value + "\n";
        }
        return 0;
    }
    if (!process.mishap.noEffect) {
        mac_.setPowerSetting(process.words.at(1) == "-b" ? "Battery Power" : "AC Power",
                             process.words.at(2), process.words.at(3));
    }
    return 0;
}

int Tools::kmutil(const Process& process, std::string& text) {
    const bool load = process.words.at(1) == "load";
    if (process.words.at(3) != kTurboExtension) {
        text = "no such extension\n";
        return 1;
    }
    if (!process.mishap.noEffect) {
        mac_.set(simulator::Property::kExtensionLoaded, load ? 1 : 0);
    }
    text = load ? "loaded\n" : "unloaded\n";
    return 0;
}

}  // namespace ferovane::testing
