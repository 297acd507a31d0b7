// Tools of a simulated Mac that only tell: ioreg, sysctl and powermetrics, as far as programs ask.
#include <cmath>
#include <cstdio>

#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"
#include "simulator/tools/machine_tool.h"

namespace simulator::tools {
namespace {

constexpr int kFailed = 1;

// The value of a name as "sysctl -n" prints it; "" when this machine has no such name.
std::string systemValue(World& world, const std::string& name) {
    const auto number = [&world](Property property) {
        const auto value = world.number(property);
        return value ? std::to_string(std::lround(*value)) : std::string();
    };
    if (name == "kern.memorystatus_vm_pressure_level") {
        return number(Property::kMemoryPressure);
    }
    if (name == "hw.logicalcpu") {
        return number(Property::kProcessors);
    }
    if (name == "hw.optional.arm64") {
        return world.state().controller == ControllerKind::kAppleSilicon ? "1" : "";
    }
    return name == "machdep.cpu.brand_string" ? world.state().brand
           : name == "kern.osproductversion"  ? world.state().systemVersion
                                              : "";
}

int printSystemValue(MachineTool& tool) {
    const Words& words = tool.arguments();
    const std::string name = words.size() == 2 && words[0] == "-n" ? words[1] : "";
    const std::string value =
        tool.mac().machine().locked([&name](World& world) { return systemValue(world, name); });
    if (value.empty()) {
        std::fprintf(stderr, "sysctl: unknown oid '%s'\n", name.c_str());
        return kFailed;
    }
    std::puts(value.c_str());
    return 0;
}

// What the service's registry entry holds, as the elements of a property list; "" without service.
std::string registryEntry(World& world, const std::string& service) {
    if (service == "AppleSMC" && world.state().controller != ControllerKind::kNone) {
        return "<key>IOClass</key><string>AppleSMC</string>";
    }
    if (service != "AppleSmartBattery" || world.number(Property::kBatteryPresent, 0) == 0) {
        return "";
    }
    std::string entry;
    const auto add = [&entry](const char* key, std::optional<double> value) {
        if (value) {
            entry += std::string("<key>") + key + "</key><integer>" +
                     std::to_string(std::lround(*value)) + "</integer>";
        }
    };
    add("Voltage", world.number(Property::kBatteryMillivolts));
    add("Amperage", PowerKeys::batteryMilliamps(world));
    add("CycleCount", world.number(Property::kBatteryCycles));
    return entry;
}

int printRegistry(MachineTool& tool) {
    const Words& words = tool.arguments();
    if (words.size() != 4 || words[0] != "-a" || words[1] != "-r" || words[2] != "-c") {
        std::fputs("usage: ioreg -a -r -c class\n", stderr);
        return kFailed;
    }
    const std::string entry = tool.mac().machine().locked(
        [&words](World& world) { return registryEntry(world, words[3]); });
    if (!entry.empty()) {
        std::printf(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\"><array><dict>%s</dict></array></plist>\n",
            entry.c_str());
    }
    return 0;
}

// The layout of the real print is not known to us; names, numbers and units are what counts.
int printMetrics(MachineTool& tool) {
    if (!tool.privileged()) {
        std::fputs("powermetrics must be invoked as the superuser\n", stderr);
        return kFailed;
    }
    const double die = tool.mac().machine().locked([](World& world) {
        return world.state().heat.temperature[static_cast<std::size_t>(HeatNode::kDie)];
    });
    for (int fan = 0; fan < tool.mac().fanCount(); ++fan) {
        std::printf("Fan: %.1f rpm\n", tool.mac().fanRpm(fan));
    }
    std::printf("CPU die temperature: %.2f C\n", die);
    return 0;
}

}  // namespace

int sysctl(const Words& words) {
    MachineTool tool("sysctl", words);
    return tool.finish(printSystemValue(tool));
}

int ioreg(const Words& words) {
    MachineTool tool("ioreg", words);
    return tool.finish(printRegistry(tool));
}

int powermetrics(const Words& words) {
    MachineTool tool("powermetrics", words);
    return tool.finish(printMetrics(tool));
}

}  // namespace simulator::tools
