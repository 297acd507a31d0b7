// create, set, write, fault, run
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>

#include "simulator/machine/faults.h"
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
    NamedValue{"at-once", static_cast<double>(ManualModeRule::kAcceptedAtOnce)},
    NamedValue{"unlock", static_cast<double>(ManualModeRule::kRefusedUntilUnlocked)},
    NamedValue{"without-effect", static_cast<double>(ManualModeRule::kWithoutEffect)},
    NamedValue{"pro", kTurboProApplication},
    NamedValue{"plain", kTurboApplication},
    NamedValue{"library", kTurboInLibrary},
};

constexpr std::string_view kSetHelp =
    "  in=SECONDS             the settings after it happen that much later\n"
    "  sleep=SECONDS          the machine sleeps: the clock jumps, manual fans are lost\n"
    "  model=TEXT             the machine's name\n"
    "  brand=TEXT             the processor's brand string; absent: not published\n"
    "  system-version=TEXT    such as 14.2.1; absent: not published\n"
    "  ac:SETTING=VALUE       a power setting on mains, such as ac:displaysleep=10\n"
    "  battery:SETTING=VALUE  the same on battery; an empty value removes it\n"
    "  assert=PID:NAME:TYPE:REASON   a process holds a power assertion\n"
    "  release=PID            it releases all of its assertions\n"
    "Values: a number, yes, no, absent (never published), text (no number), follow (battery-ma,\n"
    "battery-charging and thermal-state follow the machine until they are set). Also\n"
    "  manual-mode=at-once|unlock|without-effect: what a program meets that takes a fan of Apple\n"
    "    Silicon; unlock: refused in mode 3 until Ftst is set\n"
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

void setProperty(SimulatedMac& mac, Happenings& when, Property property, const std::string& word,
                 const std::string& text) {
    switch (formNamed(text)) {
        case PropertyForm::kAbsent:
            return when.setAbsent(property);
        case PropertyForm::kNotANumber:
            return when.setNotANumber(property);
        case PropertyForm::kFollows:
            return when.setFollowing(property);
        case PropertyForm::kNumber:
            break;
    }
    const double number = numberIn(word, text);
    // None of them is parked unless somebody says so.
    if (property == Property::kProcessors &&
        mac.value(Property::kAvailableCpus) == mac.value(Property::kProcessors)) {
        when.set(Property::kAvailableCpus, number);
    }
    when.set(property, number);
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
    } else if (name == "model") {
        mac.setModelName(value);
    } else if (name == "brand") {
        mac.setCpuBrand(value == "absent" ? "" : value);
    } else if (name == "system-version") {
        mac.setSystemVersion(value == "absent" ? "" : value);
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

// NAME=VALUE words, in order.
void settle(SimulatedMac& mac, Words::const_iterator first, Words::const_iterator last) {
    HappeningsToCome when(mac.machine(), Moment{});
    for (auto word = first; word != last; ++word) {
        const std::size_t equals = word->find('=');
        if (equals == std::string::npos) {
            throw UsageError("NAME=VALUE is needed: " + *word);
        }
        const std::string name = word->substr(0, equals);
        const std::string value = word->substr(equals + 1);
        if (name == "in") {
            when = mac.after(numberIn(*word, value));
        } else if (const auto property = propertyNamed(name)) {
            setProperty(mac, when, *property, *word, value);
        } else if (!setSpecial(mac, when, *word, name, value)) {
            throw UsageError("unknown name: " + *word + " (see \"simulated-mac set --help\")");
        }
    }
}

std::string fileContent(const std::string& path) {
    constexpr std::size_t kMostBytes = 16U << 20U;  // a real dump has some ten thousand
    std::ifstream file(path, std::ios::binary);
    std::string content(kMostBytes + 1, '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.is_open() || file.bad()) {
        throw std::runtime_error("cannot read " + path + ": " +
                                 std::generic_category().message(errno));
    }
    content.resize(static_cast<std::size_t>(file.gcount()));
    if (content.size() > kMostBytes) {
        throw std::runtime_error(path + " is too large for a key dump");
    }
    return content;
}

void printFaultHelp() {
    std::puts("Kinds of fault, now or at a moment to come:");
    for (const std::string& line : Faults::help()) {
        std::printf("  %s\n", line.c_str());
    }
    std::fputs(
        "Each kind also takes\n"
        "  times=N      strikes that often; without it, for good\n"
        "  in=SECONDS   from that moment on\n"
        "  call=K       from the K-th controller call from now\n"
        "  write=K      from the K-th controller write from now\n"
        "A code is a result byte (0x82) or an IOKit code (0xE00002C1).\n",
        stdout);
}

}  // namespace

const std::string& directoryIn(const Words& words) {
    if (words.empty() || words.front().empty() || words.front().front() == '-') {
        throw UsageError("a machine directory is needed");
    }
    return words.front();
}

int create(const Words& words) {
    if (words.size() < 3 || (words[1] != "--model" && words[1] != "--keys")) {
        throw UsageError("a directory and --model or --keys are needed");
    }
    const std::string& directory = directoryIn(words);
    const bool dump = words[1] == "--keys";
    const std::string source = dump ? fileContent(words[2]) : words[2];
    // First on a machine that nobody misses: a wrong word leaves nothing behind.
    SimulatedMac trial = dump ? macFromKeyDump(source) : builtInMac(source);
    settle(trial, words.begin() + 3, words.end());
    SimulatedMac mac = dump ? createMachineDirectoryFromKeyDump(directory, source)
                            : createMachineDirectory(directory, source);
    settle(mac, words.begin() + 3, words.end());
    std::printf("%s: %zu keys, %d fan%s\n", directory.c_str(), mac.keyCount(), mac.fanCount(),
                mac.fanCount() == 1 ? "" : "s");
    return 0;
}

int fault(const Words& words) {
    if (words.size() == 1 && words[0] == "--help") {
        printFaultHelp();
        return 0;
    }
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    if (words.size() < 2) {
        throw UsageError("name a fault, list or clear");
    }
    if (words.size() == 2 && words[1] == "list") {
        for (const FaultRecord& known : mac.machine().locked(Faults::pending)) {
            std::printf("%s\n", Faults::text(known).c_str());
        }
        return 0;
    }
    mac.machine().locked([&words](World& world) {
        FaultRecord record = {};
        try {
            record = Faults::parse(world, {words.begin() + 1, words.end()});
        } catch (const std::runtime_error& error) {
            throw UsageError(error.what());
        }
        Faults::befall(world, record);
    });
    return 0;
}

int set(const Words& words) {
    if (words.size() == 1 && words[0] == "--help") {
        printSetHelp();
        return 0;
    }
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    settle(mac, words.begin() + 1, words.end());
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
