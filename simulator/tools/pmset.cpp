// The power tool of a simulated Mac, as far as programs use it: "-g custom", "-g ps",
// "-g therm", and changes of one source's settings or of all.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>

#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"
#include "simulator/machine/power_settings.h"
#include "simulator/tools/machine_tool.h"

namespace simulator::tools {
namespace {

constexpr int kRefused = 1;
constexpr long kHighestPowerMode = 2;

// What can be set somewhere; a name that this machine does not list is taken and forgotten.
constexpr std::string_view kSettingNames =
    " sleep displaysleep disksleep womp ring powernap proximitywake autorestart lidwake acwake "
    "lessbright halfdim sms hibernatemode ttyskeepawake networkoversleep standby standbydelay "
    "standbydelayhigh standbydelaylow autopoweroff autopoweroffdelay tcpkeepalive gpuswitch "
    "lowpowermode powermode highstandbythreshold ";

int refuseUsage() {
    std::puts("Usage: pmset <options>\nSee pmset(1) for details: 'man pmset'");
    return kRefused;
}

bool isSettingName(const std::string& name) {
    return kSettingNames.find(" " + name + " ") != std::string_view::npos;
}

bool isWholeNumber(const std::string& text) {
    return !text.empty() && text.size() <= 9 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

using Sources = std::vector<std::string_view>;

// Settings of a source that the machine does not have are kept nowhere.
Sources sourcesFor(SimulatedMac& mac, const std::string& option) {
    Sources wanted;
    for (const std::string_view source : {PowerSettings::kMains, PowerSettings::kBattery}) {
        const std::string_view own = source == PowerSettings::kMains ? "-c" : "-b";
        const auto settings = mac.powerSettings();
        const bool has = std::any_of(
            settings.begin(), settings.end(),
            [source](const PowerSettingValue& known) { return known.source == source; });
        if (has && (option == own || option == "-a")) {
            wanted.push_back(source);
        }
    }
    return wanted;
}

// The name under which a machine keeps the low-power mode: machines with a High Power mode have
// "powermode" and take the old name for it.
std::string keptName(SimulatedMac& mac, std::string_view source, const std::string& name) {
    const bool alias = name == "lowpowermode" && !mac.powerSetting(source, name) &&
                       mac.powerSetting(source, "powermode");
    return alias ? "powermode" : name;
}

// 0, or the exit status of a refusal that was printed.
int checkValue(SimulatedMac& mac, std::string_view source, const std::string& name,
               const std::string& value) {
    if (!isSettingName(name) || !isWholeNumber(value)) {
        return refuseUsage();
    }
    const std::string kept = keptName(mac, source, name);
    if (kept == "powermode" && std::stol(value) > kHighestPowerMode) {
        std::printf("Unsupported mode %s\n", value.c_str());
        return kRefused;
    }
    const bool mode = kept == "powermode" || kept == "lowpowermode";
    if (mode && !mac.powerSetting(source, kept)) {
        std::printf("<%s> not supported on <%s>\n",
                    kept == "powermode" ? "PowerMode" : "LowPowerMode",
                    std::string(source).c_str());
        return refuseUsage();
    }
    return 0;
}

long valueOf(SimulatedMac& mac, std::string_view source, const std::string& name) {
    return std::strtol(mac.powerSetting(source, name).value_or("0").c_str(), nullptr, 10);
}

void warnOf(SimulatedMac& mac, std::string_view source) {
    const long sleep = valueOf(mac, source, "sleep");
    const bool display = sleep != 0 && (valueOf(mac, source, "displaysleep") > sleep ||
                                        valueOf(mac, source, "displaysleep") == 0);
    const bool disk = sleep != 0 && mac.powerSetting(source, "disksleep") &&
                      valueOf(mac, source, "disksleep") == 0;
    if (!display && !disk) {
        return;
    }
    std::fprintf(stderr, "Warning: Idle sleep timings for \"%s\" may not behave as expected.\n",
                 std::string(source).c_str());
    if (display) {
        std::fputs("- Display sleep should have a lower timeout than system sleep.\n", stderr);
    }
    if (disk) {
        std::fputs("- Disk sleep should be non-zero whenever system sleep is non-zero.\n", stderr);
    }
}

// The low-power flag of the system is the setting of the source in use.
void updateLowPowerFlag(SimulatedMac& mac) {
    const bool onMains = mac.value(Property::kAcPower).value_or(1) != 0;
    const auto source = onMains ? PowerSettings::kMains : PowerSettings::kBattery;
    const std::string name = keptName(mac, source, "lowpowermode");
    if (mac.value(Property::kLowPowerFlag) && mac.powerSetting(source, name)) {
        const double flag = valueOf(mac, source, name) == 1 ? 1 : 0;
        if (mac.value(Property::kLowPowerFlag) != flag) {
            mac.set(Property::kLowPowerFlag, flag);
        }
    }
}

int change(MachineTool& tool) {
    const Words& words = tool.arguments();
    if (words.size() < 3 || words.size() % 2 == 0) {
        return refuseUsage();
    }
    if (!tool.privileged()) {
        std::puts("'pmset' must be run as root...");
        return kRefused;
    }
    SimulatedMac& mac = tool.mac();
    const Sources sources = sourcesFor(mac, words[0]);
    for (std::size_t i = 1; i < words.size(); i += 2) {
        for (const std::string_view source : sources) {
            if (const int status = checkValue(mac, source, words[i], words[i + 1])) {
                return status;
            }
        }
    }
    const bool keep = tool.withoutEffect();
    for (const std::string_view source : sources) {
        for (std::size_t i = 1; i < words.size() && !keep; i += 2) {
            const std::string name = keptName(mac, source, words[i]);
            if (mac.powerSetting(source, name)) {
                mac.setPowerSetting(source, name, words[i + 1]);
            }
        }
        warnOf(mac, source);
    }
    updateLowPowerFlag(mac);
    return 0;
}

template <typename List>
void rotate(List& list, std::size_t by) {
    if (!list.empty()) {
        std::rotate(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(by % list.size()),
                    list.end());
    }
}

// Sections and lines stand in another order every time, as the real tool fixes none: it changes
// with everything that happens to the machine, and is the same for the same history.
int printCustom(SimulatedMac& mac) {
    const auto turn = mac.machine().locked(
        [](World& world) { return static_cast<std::size_t>(world.state().journalLines); });
    std::map<std::string, std::vector<std::string>> lines;
    for (const PowerSettingValue& setting : mac.powerSettings()) {
        std::string name = " " + setting.name;
        name.resize(std::max<std::size_t>(name.size(), 21), ' ');
        lines[setting.source].push_back(name + " " + setting.value);
    }
    std::vector<std::string> sources;
    for (const auto& section : lines) {
        sources.push_back(section.first);
    }
    rotate(sources, turn);
    for (const std::string& source : sources) {
        std::printf("%s:\n", source.c_str());
        rotate(lines[source], turn * 7);
        for (const std::string& line : lines[source]) {
            std::puts(line.c_str());
        }
    }
    return 0;
}

int printSource(SimulatedMac& mac) {
    const auto power = mac.value(Property::kAcPower);
    if (power) {
        const auto source = *power == 0   ? PowerSettings::kBattery
                            : *power == 1 ? PowerSettings::kMains
                                          : std::string_view("UPS Power");
        std::printf("Now drawing from '%s'\n", std::string(source).c_str());
    }
    return 0;
}

// Levels themselves are left out: how the real tool prints them is not known to us.
int printLimits(SimulatedMac& mac) {
    if (!mac.value(Property::kThermalWarning)) {
        std::puts("Note: No thermal warning level has been recorded");
    }
    std::puts("Note: No performance warning level has been recorded");
    const auto print = [](const char* name, std::optional<double> value) {
        if (value) {
            std::printf("\t%s \t= %.0f\n", name, *value);
        }
    };
    const auto speed = mac.machine().locked(PowerKeys::speedLimit);
    print("CPU_Scheduler_Limit", mac.value(Property::kSchedulerLimit));
    print("CPU_Available_CPUs", mac.value(Property::kAvailableCpus));
    print("CPU_Speed_Limit",
          speed.form == PropertyForm::kNumber ? std::optional(speed.number) : std::nullopt);
    return 0;
}

int perform(MachineTool& tool) {
    const Words& words = tool.arguments();
    if (words.size() == 2 && words[0] == "-g" && words[1] == "ps") {
        return printSource(tool.mac());
    }
    if (words.size() == 2 && words[0] == "-g" && words[1] == "therm") {
        return printLimits(tool.mac());
    }
    if (words.size() == 2 && words[0] == "-g" && words[1] == "custom") {
        return printCustom(tool.mac());
    }
    const bool known = !words.empty() && (words[0] == "-a" || words[0] == "-b" || words[0] == "-c");
    return known ? change(tool) : refuseUsage();
}

}  // namespace

int pmset(const Words& words) {
    MachineTool tool("pmset", words);
    return tool.finish(perform(tool));
}

}  // namespace simulator::tools
