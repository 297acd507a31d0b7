// What a machine looks like at one moment, for printing.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "simulator/machine/simulated_mac.h"

namespace simulator::tools {

struct KeyView {
    std::string name;
    std::string type;
    std::optional<double> number;  // absent: unreadable, or no number
};

struct FanView {
    int id = 0;
    int mode = 0;
    bool manual = false;
    bool vanished = false;
    double target = 0, rpm = 0, minimum = 0, maximum = 0;
    std::string holder;  // "system", "other program" or "process N"
};

struct MachineView {
    std::string model, brand, systemVersion, controller;
    double seconds = 0;
    std::vector<KeyView> keys;
    std::vector<FanView> fans;
    double die = 0, graphics = 0, sink = 0, storage = 0, battery = 0, enclosure = 0, ambient = 0;
    double totalWatts = 0, processorWatts = 0, graphicsWatts = 0;
    double load = 0, graphicsLoad = 0, speed = 1, throttlePercent = 100;
    bool onMains = true;
    std::optional<double> batteryPercent;
    bool extensionLoaded = false;
    bool unlocked = false;
    std::uint32_t forcedMask = 0;
    std::vector<std::string> faults;
};

MachineView viewOf(SimulatedMac& mac);

}  // namespace simulator::tools
