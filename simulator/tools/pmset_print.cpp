#include "simulator/tools/pmset_print.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <map>

#include "simulator/machine/machine.h"
#include "simulator/machine/power_settings.h"

namespace simulator::tools {
namespace {

constexpr double kCocoaEpoch = 978307200;  // 2001-01-01 in Unix time

void printDate() {
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    ::localtime_r(&now, &local);
    std::array<char, 32> text = {};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %z", &local);
    std::printf("%s", text.data());
}

void printSetting(const PowerSettingValue& setting) {
    std::printf(" %-20s %s\n", setting.name.c_str(), setting.value.c_str());
}

using Sections = std::vector<std::pair<std::string, std::vector<PowerSettingValue>>>;

Sections sectionsOf(SimulatedMac& mac) {
    Sections sections;
    for (const PowerSettingValue& setting : mac.powerSettings()) {
        auto section =
            std::find_if(sections.begin(), sections.end(),
                         [&setting](const auto& known) { return known.first == setting.source; });
        if (section == sections.end()) {
            section = sections.insert(sections.end(), {setting.source, {}});
        }
        section->second.push_back(setting);
    }
    return sections;
}

// Changes with everything that happens to the machine, and is the same for the same history.
std::size_t turn(SimulatedMac& mac) {
    return mac.machine().locked(
        [](World& world) { return static_cast<std::size_t>(world.state().journalLines); });
}

template <typename List>
void rotate(List& list, std::size_t by) {
    if (!list.empty()) {
        std::rotate(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(by % list.size()),
                    list.end());
    }
}

std::string heldSince(double since) {
    const double held =
        std::max(static_cast<double>(std::time(nullptr)) - kCocoaEpoch - since, 0.0);
    const auto seconds = static_cast<long>(since == 0 ? 0 : held);
    std::array<char, 40> text = {};
    std::snprintf(text.data(), text.size(), "%02ld:%02ld:%02ld", seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
    return text.data();
}

std::vector<AssertionRecord> assertionsOf(SimulatedMac& mac) {
    return mac.machine().locked([](World& world) {
        std::vector<AssertionRecord> found;
        for (const AssertionRecord& assertion : world.state().assertions) {
            if (assertion.used != 0 && assertion.type[0] != '\0') {
                found.push_back(assertion);
            }
        }
        return found;
    });
}

}  // namespace

void printCustom(SimulatedMac& mac) {
    Sections sections = sectionsOf(mac);
    const std::size_t order = turn(mac);
    rotate(sections, order);
    for (auto& [source, settings] : sections) {
        std::printf("%s:\n", source.c_str());
        rotate(settings, order * 7);
        std::for_each(settings.begin(), settings.end(), printSetting);
    }
}

void printLive(SimulatedMac& mac) {
    const bool onMains = mac.value(Property::kAcPower).value_or(1) != 0;
    const std::string source(onMains ? PowerSettings::kMains : PowerSettings::kBattery);
    const auto assertions = assertionsOf(mac);
    std::printf("System-wide power settings:\nCurrently in use:\n");
    for (PowerSettingValue setting : mac.powerSettings()) {
        if (setting.source != source) {
            continue;
        }
        const auto blocker = std::find_if(
            assertions.begin(), assertions.end(), [](const AssertionRecord& assertion) {
                return std::string_view(assertion.type) == "PreventUserIdleSystemSleep" &&
                       assertion.level > 0;
            });
        if (setting.name == "sleep" && blocker != assertions.end()) {
            setting.value += " (sleep prevented by " + std::string(blocker->process) + ")";
        }
        printSetting(setting);
    }
}

void printAssertions(SimulatedMac& mac) {
    std::map<std::string, int> counts = {{"BackgroundTask", 0},
                                         {"PreventDiskIdle", 0},
                                         {"PreventSystemSleep", 0},
                                         {"PreventUserIdleDisplaySleep", 0},
                                         {"PreventUserIdleSystemSleep", 0}};
    const auto assertions = assertionsOf(mac);
    for (const AssertionRecord& assertion : assertions) {
        counts[assertion.type] |= assertion.level > 0 ? 1 : 0;
    }
    printDate();
    std::printf("\nAssertion status system-wide:\n");
    for (const auto& [type, held] : counts) {
        std::printf("   %-30s %d\n", type.c_str(), held);
    }
    if (!assertions.empty()) {
        std::printf("Listed by owning process:\n");
    }
    unsigned identity = 0x8000;
    for (const AssertionRecord& assertion : assertions) {
        std::printf("   pid %d(%s): [0x%08x%08x] %s %s named: \"%s\"  \n", assertion.pid,
                    assertion.process, ++identity, static_cast<unsigned>(assertion.pid),
                    heldSince(assertion.since).c_str(), assertion.type, assertion.reason);
    }
    std::printf("No kernel assertions.\n");
}

void printThermal(SimulatedMac& mac) {
    std::printf(
        "Note: No thermal warning level has been recorded\n"
        "Note: No performance warning level has been recorded\n");
    const auto speed = mac.value(Property::kSpeedLimit);
    const auto scheduler = mac.value(Property::kSchedulerLimit);
    const auto processors = mac.value(Property::kAvailableCpus);
    if (!speed && !scheduler && !processors) {
        std::printf("Note: No CPU power status has been recorded\n");
        return;
    }
    printDate();
    std::printf(" CPU Power notify\n");
    const auto line = [](const char* name, std::optional<double> value) {
        if (value) {
            std::printf("\t%s \t= %.0f\n", name, *value);
        }
    };
    line("CPU_Scheduler_Limit", scheduler);
    line("CPU_Available_CPUs", processors);
    line("CPU_Speed_Limit", speed);
}

}  // namespace simulator::tools
