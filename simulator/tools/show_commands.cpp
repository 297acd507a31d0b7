// models, show, watch, journal
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "simulator/machine/fans.h"
#include "simulator/machine/faults.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/machine.h"
#include "simulator/tools/command.h"

namespace simulator::tools {
namespace {

using nlohmann::json;

constexpr std::size_t kTemperaturesShown = 12;
constexpr std::size_t kKeysPerLine = 6;

// In the order of ControllerKind.
constexpr const char* kControllers[] = {"none", "Intel, forced mask", "Intel with T2",
                                        "Apple Silicon"};

json optionalJson(const std::optional<double>& number) {
    return number ? json(*number) : json(nullptr);
}

struct KeyView {
    std::string name, type;
    std::optional<double> number;  // absent: unreadable, or no number
};

std::vector<KeyView> keysOf(World& world) {
    std::vector<KeyView> keys;
    for (std::uint32_t i = 0; i < world.state().keyCount; ++i) {
        const KeyRecord& key = world.keys()[i];
        const bool readable = key.readResult == 0 && KeyTable::find(world, key.code) != nullptr;
        keys.push_back(
            {unpacked(key.code), unpacked(key.type),
             readable ? KeyTable::decode(key, KeyTable::value(world, key).data()) : std::nullopt});
    }
    return keys;
}

json fansJson(const WorldState& state) {
    json fans = json::array();
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        const FanRecord& fan = state.fans[i];
        const std::string holder = fan.holder == 0 ? "system"
                                   : fan.holder == kHeldByOther
                                       ? "other program"
                                       : "process " + std::to_string(fan.holder);
        fans.push_back({{"id", i},
                        {"manual", fan.mode == kModeManual},
                        {"mode", fan.mode},
                        {"target", fan.target},
                        {"rpm", fan.rpm},
                        {"minimum", fan.minimum},
                        {"maximum", fan.maximum},
                        {"holder", holder},
                        {"vanished", fan.vanished != 0}});
    }
    return fans;
}

json heatJson(const WorldState& state) {
    // In the order of HeatNode.
    constexpr const char* kNodes[] = {"die",     "graphics",  "sink",   "storage",
                                      "battery", "enclosure", "ambient"};
    json heat;
    for (std::size_t node = 0; node < std::size(kNodes); ++node) {
        heat[kNodes[node]] = state.heat.temperature[node];
    }
    return heat;
}

json powerJson(World& world) {
    const auto watts = [&world](HeatNode node) {
        return world.state().heat.temperature[static_cast<std::size_t>(node)];
    };
    const bool battery = world.number(Property::kBatteryPresent, 0) != 0;
    return {{"total", watts(HeatNode::kTotalPower)},
            {"processor", watts(HeatNode::kProcessorPower)},
            {"graphics", watts(HeatNode::kGraphicsPower)},
            {"throttlePercent", 100 * world.state().heat.throttle},
            {"onMains", world.number(Property::kAcPower, 1) != 0},
            {"batteryPercent",
             optionalJson(battery ? world.number(Property::kBatteryPercent) : std::nullopt)}};
}

// What a machine looks like at one moment. Nothing is printed while its lock is held: whoever reads
// the print may be slow.
struct View {
    json machine;
    std::vector<KeyView> keys;
};

View viewOf(World& world) {
    const WorldState& state = world.state();
    const std::vector<KeyView> keys = keysOf(world);
    json numbers = json::object();
    for (const KeyView& key : keys) {
        numbers[key.name] = optionalJson(key.number);
    }
    json faults = json::array();
    for (const FaultRecord& fault : Faults::pending(world)) {
        faults.push_back(Faults::text(fault));
    }
    json machine = {{"model", state.model},
                    {"brand", state.brand},
                    {"systemVersion", state.systemVersion},
                    {"controller", kControllers[static_cast<std::size_t>(state.controller)]},
                    {"seconds", state.machineSeconds},
                    {"keys", numbers},
                    {"fans", fansJson(state)},
                    {"unlocked", state.unlock != 0},
                    {"forcedMask", state.forcedMask},
                    {"heat", heatJson(state)},
                    {"power", powerJson(world)},
                    {"load", world.number(Property::kLoad, 0)},
                    {"graphicsLoad", world.number(Property::kGraphicsLoad, 0)},
                    {"speed", world.number(Property::kSpeed, 1)},
                    {"extensionLoaded", world.number(Property::kExtensionLoaded, 0) != 0},
                    {"faults", faults}};
    return {machine, keys};
}

const char* textIn(const json& object, const char* name) {
    return object.at(name).get_ref<const std::string&>().c_str();
}

double numberIn(const json& object, const char* name) {
    return object.at(name).get<double>();
}

void printSummary(const json& view) {
    std::printf("%s   %s   macOS %s   controller: %s\n", textIn(view, "model"),
                textIn(view, "brand"), textIn(view, "systemVersion"), textIn(view, "controller"));
    const json& power = view["power"];
    std::printf("load %.0f %%   graphics %.0f %%   speed ×%g   %s", numberIn(view, "load"),
                numberIn(view, "graphicsLoad"), numberIn(view, "speed"),
                power["onMains"] ? "on mains" : "on battery");
    if (!power["batteryPercent"].is_null()) {
        std::printf("   battery %.0f %%", numberIn(power, "batteryPercent"));
    }
    std::printf("%s\n", view["extensionLoaded"] ? "   turbo disabled" : "");
    const json& heat = view["heat"];
    std::printf(
        "heat   die %.1f   graphics %.1f   heat sink %.1f   storage %.1f   enclosure %.1f   "
        "room %.1f °C\n",
        numberIn(heat, "die"), numberIn(heat, "graphics"), numberIn(heat, "sink"),
        numberIn(heat, "storage"), numberIn(heat, "enclosure"), numberIn(heat, "ambient"));
    std::printf("power  total %.1f   processor %.1f   graphics %.1f W", numberIn(power, "total"),
                numberIn(power, "processor"), numberIn(power, "graphics"));
    const double throttle = numberIn(power, "throttlePercent");
    std::printf(throttle < 99.5 ? "   throttled to %.0f %%\n" : "\n", throttle);
}

const char* modeName(const json& fan) {
    return fan["vanished"]              ? "vanished"
           : fan["manual"]              ? "manual"
           : fan["mode"] == kModeSystem ? "automatic (system)"
                                        : "automatic";
}

void printFans(const json& view) {
    std::puts(view["fans"].empty()
                  ? "no fans"
                  : "fan  mode                target    rpm   range         held by");
    for (const json& fan : view["fans"]) {
        std::printf("%3.0f  %-18s %7.0f %6.0f   %4.0f to %-5.0f  %s\n", numberIn(fan, "id"),
                    modeName(fan), numberIn(fan, "target"), numberIn(fan, "rpm"),
                    numberIn(fan, "minimum"), numberIn(fan, "maximum"), textIn(fan, "holder"));
    }
    if (view["unlocked"]) {
        std::puts("unlocked (Ftst)");
    }
}

// The hottest of the readings that look like temperatures.
void printTemperatures(std::vector<KeyView> keys) {
    const auto isNone = [](const KeyView& key) {
        return key.name.front() != 'T' || key.type == "ui8 " || !key.number || *key.number <= 0 ||
               *key.number >= 130;
    };
    keys.erase(std::remove_if(keys.begin(), keys.end(), isNone), keys.end());
    std::sort(keys.begin(), keys.end(), [](const KeyView& left, const KeyView& right) {
        return *left.number != *right.number ? *left.number > *right.number
                                             : left.name < right.name;
    });
    keys.resize(std::min(keys.size(), kTemperaturesShown));
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const bool last = (i + 1) % kKeysPerLine == 0 || i + 1 == keys.size();
        std::printf("%s %6.1f%s", keys[i].name.c_str(), *keys[i].number, last ? "\n" : "   ");
    }
}

void printView(const View& view) {
    printSummary(view.machine);
    printFans(view.machine);
    printTemperatures(view.keys);
    for (const json& fault : view.machine["faults"]) {
        std::printf("fault  %s\n", fault.get_ref<const std::string&>().c_str());
    }
}

void printKey(const KeyView& key) {
    char number[32] = "-";
    if (key.number) {
        std::snprintf(number, sizeof number, "%.10g", *key.number);
    }
    std::printf("%s  %s  %s\n", key.name.c_str(), key.type.c_str(), number);
}

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

double secondsIn(const std::string& text) {
    const auto seconds = worldNumber(text);
    if (!seconds || *seconds <= 0) {
        throw UsageError("not a number of seconds: " + text);
    }
    return *seconds;
}

}  // namespace

int listModels(const Words& words) {
    if (!words.empty()) {
        throw UsageError("no arguments are taken");
    }
    for (const ModelInfo& model : builtInModels()) {
        std::printf("%-15s %s\n", model.name.c_str(), model.description.c_str());
    }
    return 0;
}

int show(const Words& words) {
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    const std::string option = words.size() == 1 ? "" : words[1];
    if (words.size() > 2 || (option != "" && option != "--json" && option != "--keys")) {
        throw UsageError("unknown option " + option);
    }
    const View view = mac.machine().locked(viewOf);
    if (option == "--json") {
        // Key names of a damaged machine may be no UTF-8.
        std::puts(view.machine.dump(2, ' ', false, json::error_handler_t::replace).c_str());
        return 0;
    }
    printView(view);
    if (option == "--keys") {
        std::for_each(view.keys.begin(), view.keys.end(), printKey);
    }
    return 0;
}

int watch(const Words& words) {
    const bool bounded = words.size() == 3 && words[1] == "--for";
    if (words.size() != 1 && !bounded) {
        throw UsageError("DIR [--for SECONDS] is needed");
    }
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration<double>(bounded ? secondsIn(words[2]) : 0);
    std::signal(SIGINT, onInterrupt);
    std::signal(SIGTERM, onInterrupt);
    const bool terminal = ::isatty(STDOUT_FILENO) != 0;
    while (interrupted == 0) {
        std::fputs(terminal ? "\x1b[H\x1b[2J" : "", stdout);
        printView(mac.machine().locked(viewOf));
        std::fputs(terminal ? "" : "\n", stdout);
        std::fflush(stdout);
        if (bounded && std::chrono::steady_clock::now() + std::chrono::seconds(1) > end) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
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

}  // namespace simulator::tools
