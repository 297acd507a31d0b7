// show, watch
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>

#include "simulator/tools/command.h"
#include "simulator/tools/machine_view.h"

namespace simulator::tools {
namespace {

using nlohmann::json;

constexpr std::size_t kTemperaturesShown = 12;
constexpr int kKeysPerLine = 6;

json fanJson(const FanView& fan) {
    return {{"id", fan.id},           {"manual", fan.manual}, {"mode", fan.mode},
            {"target", fan.target},   {"rpm", fan.rpm},       {"minimum", fan.minimum},
            {"maximum", fan.maximum}, {"holder", fan.holder}, {"vanished", fan.vanished}};
}

json viewJson(const MachineView& view) {
    json keys = json::object();
    for (const KeyView& key : view.keys) {
        keys[key.name] = key.number ? json(*key.number) : json(nullptr);
    }
    json fans = json::array();
    for (const FanView& fan : view.fans) {
        fans.push_back(fanJson(fan));
    }
    return {
        {"model", view.model},
        {"brand", view.brand},
        {"systemVersion", view.systemVersion},
        {"controller", view.controller},
        {"seconds", view.seconds},
        {"keys", keys},
        {"fans", fans},
        {"unlocked", view.unlocked},
        {"forcedMask", view.forcedMask},
        {"heat",
         {{"die", view.die},
          {"graphics", view.graphics},
          {"sink", view.sink},
          {"storage", view.storage},
          {"battery", view.battery},
          {"enclosure", view.enclosure},
          {"ambient", view.ambient}}},
        {"power",
         {{"total", view.totalWatts},
          {"processor", view.processorWatts},
          {"graphics", view.graphicsWatts},
          {"onMains", view.onMains},
          {"batteryPercent", view.batteryPercent ? json(*view.batteryPercent) : json(nullptr)}}},
        {"load", view.load},
        {"graphicsLoad", view.graphicsLoad},
        {"speed", view.speed},
        {"extensionLoaded", view.extensionLoaded},
        {"faults", view.faults}};
}

const char* modeName(const FanView& fan) {
    if (fan.vanished) {
        return "vanished";
    }
    return fan.manual ? "manual" : fan.mode == 3 ? "automatic (system)" : "automatic";
}

void printSummary(const MachineView& view) {
    std::printf("%s   %s   macOS %s   controller: %s\n", view.model.c_str(), view.brand.c_str(),
                view.systemVersion.c_str(), view.controller.c_str());
    std::printf("load %.0f %%   graphics %.0f %%   speed ×%g   %s", view.load, view.graphicsLoad,
                view.speed, view.onMains ? "on mains" : "on battery");
    if (view.batteryPercent) {
        std::printf("   battery %.0f %%", *view.batteryPercent);
    }
    std::printf("%s\n", view.extensionLoaded ? "   turbo disabled" : "");
    std::printf(
        "heat   die %.1f   graphics %.1f   heat sink %.1f   storage %.1f   enclosure %.1f   "
        "room %.1f °C\n",
        view.die, view.graphics, view.sink, view.storage, view.enclosure, view.ambient);
    std::printf("power  total %.1f   processor %.1f   graphics %.1f W", view.totalWatts,
                view.processorWatts, view.graphicsWatts);
    std::printf(view.throttlePercent < 99.5 ? "   throttled to %.0f %%\n" : "\n",
                view.throttlePercent);
}

void printFans(const MachineView& view) {
    if (view.fans.empty()) {
        std::printf("no fans\n");
        return;
    }
    std::printf("fan  mode                target    rpm   range         held by\n");
    for (const FanView& fan : view.fans) {
        std::printf("%3d  %-18s %7.0f %6.0f   %4.0f to %-5.0f  %s\n", fan.id, modeName(fan),
                    fan.target, fan.rpm, fan.minimum, fan.maximum, fan.holder.c_str());
    }
    if (view.unlocked) {
        std::printf("unlocked (Ftst)\n");
    }
}

// The hottest of the readings that look like temperatures.
void printTemperatures(const MachineView& view) {
    std::vector<KeyView> temperatures;
    std::copy_if(view.keys.begin(), view.keys.end(), std::back_inserter(temperatures),
                 [](const KeyView& key) {
                     return key.name.front() == 'T' && key.type != "ui8 " && key.number &&
                            *key.number > 0 && *key.number < 130;
                 });
    std::sort(temperatures.begin(), temperatures.end(),
              [](const KeyView& left, const KeyView& right) {
                  return *left.number != *right.number ? *left.number > *right.number
                                                       : left.name < right.name;
              });
    temperatures.resize(std::min(temperatures.size(), kTemperaturesShown));
    int column = 0;
    for (const KeyView& key : temperatures) {
        const bool last = ++column % kKeysPerLine == 0;
        std::printf("%s %6.1f%s", key.name.c_str(), *key.number, last ? "\n" : "   ");
    }
    std::printf(column % kKeysPerLine == 0 ? "" : "\n");
}

void printKeys(const MachineView& view) {
    for (const KeyView& key : view.keys) {
        if (key.number) {
            std::printf("%s  %s  %.10g\n", key.name.c_str(), key.type.c_str(), *key.number);
        } else {
            std::printf("%s  %s  -\n", key.name.c_str(), key.type.c_str());
        }
    }
}

void printView(const MachineView& view) {
    printSummary(view);
    printFans(view);
    printTemperatures(view);
    for (const std::string& fault : view.faults) {
        std::printf("fault  %s\n", fault.c_str());
    }
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

int show(const Words& words) {
    SimulatedMac mac = openMachineDirectory(directoryIn(words));
    const MachineView view = viewOf(mac);
    if (words.size() == 1) {
        printView(view);
    } else if (words.size() == 2 && words[1] == "--json") {
        // Key names of a damaged machine may be no UTF-8.
        std::puts(viewJson(view).dump(2, ' ', false, json::error_handler_t::replace).c_str());
    } else if (words.size() == 2 && words[1] == "--keys") {
        printView(view);
        printKeys(view);
    } else {
        throw UsageError("unknown option " + words[1]);
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
        printView(viewOf(mac));
        std::fputs(terminal ? "" : "\n", stdout);
        std::fflush(stdout);
        if (bounded && std::chrono::steady_clock::now() + std::chrono::seconds(1) > end) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return 0;
}

}  // namespace simulator::tools
