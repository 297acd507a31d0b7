// set, write, journal, run
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <system_error>

#include "simulator/machine/machine.h"
#include "simulator/machine/power_settings.h"
#include "simulator/machine/simulated_mac.h"
#include "simulator/tools/command.h"

namespace simulator::tools {
namespace {

constexpr int kNotFound = 127;  // as shells report a command that does not exist

struct NamedValue {
    std::string_view name;
    double value;
};

// Words that stand for numbers, so that "ac=no" and "extension-approval=restart" can be written.
constexpr std::array kNamedValues = {
    NamedValue{"no", 0},
    NamedValue{"yes", 1},
    NamedValue{"off", 0},
    NamedValue{"on", 1},
    NamedValue{"none", 0},
    NamedValue{"approved", 0},
    NamedValue{"not-approved", 1},
    NamedValue{"restart", 2},
    NamedValue{"not-loadable", 3},
    NamedValue{"pro", kTurboProApplication},
    NamedValue{"plain", kTurboApplication},
    NamedValue{"library", kTurboInLibrary},
};

constexpr std::string_view kSetHelp =
    "  in=SECONDS             the settings after it happen that much later\n"
    "  sleep=SECONDS          the machine sleeps: the clock jumps, manual fans are lost\n"
    "  brand=TEXT             the processor's brand string\n"
    "  system-version=TEXT    such as 14.2.1\n"
    "  ac:SETTING=VALUE       a power setting on mains, such as ac:displaysleep=10\n"
    "  battery:SETTING=VALUE  the same on battery; an empty value removes it\n"
    "  assert=PID:NAME:TYPE:REASON   a process holds a power assertion\n"
    "  release=PID            it releases all of its assertions\n"
    "Values: a number, yes, no, absent (never published), text (no number). Also\n"
    "  extension-approval=approved|not-approved|restart|not-loadable\n"
    "  turbo-applications=none|pro|plain|library, or the sum of their bits 1, 2 and 4\n";

void printSetHelp() {
    std::puts("Names for \"set\":");
    for (std::uint32_t i = 0; i < static_cast<std::uint32_t>(Property::kCount); ++i) {
        std::printf("  %s=\n", std::string(propertyName(static_cast<Property>(i))).c_str());
    }
    std::fputs(kSetHelp.data(), stdout);
}

double numberIn(const std::string& word, const std::string& text) {
    for (const NamedValue& named : kNamedValues) {
        if (named.name == text) {
            return named.value;
        }
    }
    const auto number = worldNumber(text);
    if (!number) {
        throw UsageError("not a number: " + word);
    }
    return *number;
}

double secondsIn(const std::string& word, const std::string& text) {
    const double seconds = numberIn(word, text);
    if (seconds < 0) {
        throw UsageError("time does not go back: " + word);
    }
    return seconds;
}

void setProperty(Happenings& when, Property property, const std::string& word,
                 const std::string& text) {
    if (text == "absent") {
        when.setAbsent(property);
    } else if (text == "text") {
        when.setNotANumber(property);
    } else {
        when.set(property, numberIn(word, text));
    }
}

Assertion assertionIn(const std::string& word, const std::string& text) {
    std::array<std::string, 4> parts;
    std::size_t start = 0;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const std::size_t colon = i + 1 < parts.size() ? text.find(':', start) : text.size();
        if (colon == std::string::npos) {
            throw UsageError("PID:NAME:TYPE:REASON is needed: " + word);
        }
        parts[i] = text.substr(start, colon - start);
        start = colon + 1;
    }
    return {static_cast<int>(numberIn(word, parts[0])), parts[1], parts[2], parts[3], 255, 0};
}

void setPower(SimulatedMac& mac, std::string_view source, const std::string& name,
              const std::string& value) {
    if (value.empty()) {
        mac.removePowerSetting(source, name);
    } else {
        mac.setPowerSetting(source, name, value);
    }
}

// What is no property. False when the name is unknown.
bool setSpecial(SimulatedMac& mac, Happenings& when, const std::string& word,
                const std::string& name, const std::string& value) {
    if (name == "sleep") {
        when.sleep(secondsIn(word, value));
    } else if (name == "brand") {
        mac.setCpuBrand(value);
    } else if (name == "system-version") {
        mac.setSystemVersion(value);
    } else if (name == "assert") {
        mac.hold(assertionIn(word, value));
    } else if (name == "release") {
        mac.releaseAssertions(static_cast<int>(numberIn(word, value)));
    } else if (name.rfind("ac:", 0) == 0) {
        setPower(mac, PowerSettings::kMains, name.substr(3), value);
    } else if (name.rfind("battery:", 0) == 0) {
        setPower(mac, PowerSettings::kBattery, name.substr(8), value);
    } else {
        return false;
    }
    return true;
}

}  // namespace

int set(const Words& words) {
    if (words.size() == 1 && words[0] == "--help") {
        printSetHelp();
        return 0;
    }
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    HappeningsToCome when(mac.machine(), Moment{});
    for (std::size_t i = 1; i < words.size(); ++i) {
        const std::string& word = words[i];
        const std::size_t equals = word.find('=');
        if (equals == std::string::npos) {
            throw UsageError("NAME=VALUE is needed: " + word);
        }
        const std::string name = word.substr(0, equals);
        const std::string value = word.substr(equals + 1);
        if (name == "in") {
            when = mac.after(numberIn(word, value));
        } else if (const auto property = propertyNamed(name)) {
            setProperty(when, *property, word, value);
        } else if (!setSpecial(mac, when, word, name, value)) {
            throw UsageError("unknown name: " + word + " (see \"simulated-mac set --help\")");
        }
    }
    return 0;
}

int write(const Words& words) {
    if (words.size() != 3) {
        throw UsageError("a directory, a key and a value are needed");
    }
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    const double number = numberIn(words[2], words[2]);
    if (!mac.hasKey(words[1])) {
        throw std::runtime_error("the machine has no key " + words[1]);
    }
    if (!mac.number(words[1])) {
        throw std::runtime_error("key " + words[1] + " holds no number");
    }
    mac.otherWrites(words[1], number);
    return 0;
}

int journal(const Words& words) {
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    if (words.size() == 2 && words[1] == "--writes") {
        std::printf("%s\n", mac.writes().c_str());
        return 0;
    }
    if (words.size() != 1) {
        throw UsageError("unknown option " + words[1]);
    }
    for (const std::string& line : mac.journal()) {
        std::printf("%s\n", line.c_str());
    }
    const auto lost = mac.machine().locked([](World& world) { return world.state().journalLost; });
    if (lost != 0) {
        std::fprintf(stderr, "%llu lines are missing: the disk was full\n",
                     static_cast<unsigned long long>(lost));
    }
    return 0;
}

int run(const Words& words) {
    const std::string& directory = directoryIn(words);
    if (words.size() < 3 || words[1] != "--") {
        throw UsageError("DIR -- COMMAND is needed");
    }
    openMachineDirectory(directory);  // refuses what is no machine, before anything runs
    // NOLINTNEXTLINE(concurrency-mt-unsafe): this program has one thread.
    ::setenv(kMachineVariable, std::filesystem::absolute(directory).c_str(), 1);
    std::vector<char*> arguments;
    for (std::size_t i = 2; i < words.size(); ++i) {
        arguments.push_back(const_cast<char*>(words[i].c_str()));
    }
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "simulated-mac run: cannot run %s: %s\n", arguments[0],
                 std::generic_category().message(errno).c_str());
    return kNotFound;
}

}  // namespace simulator::tools
