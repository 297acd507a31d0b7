// The built-in machines.
#include <algorithm>
#include <stdexcept>

#include "simulator/machine/embedded_data.h"
#include "simulator/machine/key_dump.h"
#include "simulator/machine/model.h"

namespace simulator {
namespace {

// Of an M-series die, no more than this of its full power is drawn at rest.
constexpr double kSiliconIdle = 0.12;

}  // namespace

const std::vector<Model>& builtInModelTable() {
    static const std::vector<Model> models = {
        // Starts at light load as its owner left it, fans at minimum.
        {.name = "MacBookPro11,4",
         .description = "15-inch laptop of 2015: two fpe2 fans, forced mask \"FS! \", no mode keys",
         .brand = "Intel(R) Core(TM) i7-4770HQ CPU @ 2.20GHz",
         .systemVersion = "11.7.10",
         .controller = ControllerKind::kForcedMask,
         .keyDumps = {"MacBookPro11_4.csv", ""},
         .powerSettings = "power-laptop-2015.txt",
         .battery = true,
         .cpuLimits = true},
        // Starts on battery at light load, fans at minimum.
        {.name = "MacBookPro16,1",
         .description =
             "16-inch laptop with T2: two float fans with mode keys, no mask, on battery",
         .brand = "Intel(R) Core(TM) i9-9880H CPU @ 2.30GHz",
         .systemVersion = "14.2.1",
         .controller = ControllerKind::kT2,
         .processors = 16,
         .keyDumps = {"MacBookPro16_1.csv", ""},
         .powerSettings = "power-laptop-t2.txt",
         .battery = true,
         .cpuLimits = true,
         .lowPowerFlag = true,
         .reachableShare = 1.06,
         .figures = {.fullWatts = 65, .graphicsWatts = 50}},
        {.name = "iMac18,3",
         .description = "27-inch desktop of 2017: one fpe2 fan, forced mask, no battery",
         .brand = "Intel(R) Core(TM) i5-7400 CPU @ 3.00GHz",
         .systemVersion = "13.6.3",
         .controller = ControllerKind::kForcedMask,
         .processors = 4,
         .keyDumps = {"iMac18_3.csv", ""},
         .powerSettings = "power-desktop.txt",
         .cpuLimits = true,
         .lowPowerFlag = true,
         .figures = {.fullWatts = 65, .graphicsWatts = 100}},
        {.name = "MacPro7,1",
         .description = "tower of 2019: four float fans with mode keys, 98 sensors without a card",
         .brand = "Intel(R) Xeon(R) W-3235 CPU @ 3.30GHz",
         .systemVersion = "14.2.1",
         .controller = ControllerKind::kT2,
         .processors = 24,
         .keyDumps = {"MacPro7_1.csv", ""},
         .powerSettings = "power-desktop.txt",
         .cpuLimits = true,
         .figures = {.fullWatts = 180, .graphicsWatts = 200}},
        {.name = "MacBook10,1",
         .description = "12-inch laptop of 2017 without a fan",
         .brand = "Intel(R) Core(TM) i5-7Y54 CPU @ 1.20GHz",
         .systemVersion = "13.6.3",
         .controller = ControllerKind::kForcedMask,
         .processors = 4,
         .keyDumps = {"MacBook10_1.csv", ""},
         .powerSettings = "power-laptop-2015.txt",
         .battery = true,
         .cpuLimits = true,
         .lowPowerFlag = true,
         .figures = {.fullWatts = 10, .graphicsWatts = 4}},
        // Starts busy, as in its dump: the fans run inside their range in mode 0, so they can be
        // leased at once. At no load they stop.
        {.name = "M1Pro",
         .description = "laptop, busy: two fans, manual mode accepted at once, no unlock key",
         .brand = "Apple M1 Pro",
         .systemVersion = "14.2.1",
         .controller = ControllerKind::kAppleSilicon,
         .processors = 10,
         .keyDumps = {"apple-m1-pro-temperatures.csv", "apple-m1-pro-fans-power.csv"},
         .powerSettings = "power-laptop-apple-silicon.txt",
         .battery = true,
         .lowPowerFlag = true,
         .fansStop = true,
         .figures = {.idleFraction = kSiliconIdle, .fullWatts = 35, .graphicsWatts = 30}},
        // Starts at rest: fans off in mode 3, held by the system. Under load they run, still in
        // mode 3. A target of 10000 rpm ends at 8560.
        {.name = "M4Max",
         .description =
             "laptop at rest, fans off: manual mode refused (0x82) until \"Ftst\" is set",
         .brand = "Apple M4 Max",
         .systemVersion = "14.2.1",
         .controller = ControllerKind::kAppleSilicon,
         .processors = 16,
         .keyDumps = {"apple-m4-pro-temperatures.csv", "apple-m4-max-fans-power.csv"},
         .powerSettings = "power-laptop-high-power.txt",
         .battery = true,
         .lowPowerFlag = true,
         .fansStop = true,
         .manualModeRule = ManualModeRule::kRefusedUntilUnlocked,
         .startLoad = 2,
         .reachableShare = 8560.0 / 7826.0,
         .figures = {.idleFraction = kSiliconIdle, .fullWatts = 60, .graphicsWatts = 60}},
        // Starts at moderate load, as in its dump: fans at minimum in mode 0.
        {.name = "M5Pro",
         .description = "laptop, light load: lower-case mode keys, too low targets are raised",
         .brand = "Apple M5 Pro",
         .systemVersion = "26.1",
         .controller = ControllerKind::kAppleSilicon,
         .processors = 15,
         .keyDumps = {"apple-m5-pro-temperatures.csv", "apple-m5-pro-fans-power.csv"},
         .powerSettings = "power-laptop-high-power.txt",
         .battery = true,
         .lowPowerFlag = true,
         .fansStop = true,
         .raisesLowTargets = true,
         .reachableShare = 9600.0 / 7826.0,
         .figures = {.idleFraction = kSiliconIdle, .fullWatts = 45, .graphicsWatts = 45}},
        {.name = "NoController",
         .description = "a machine without a controller, a battery or power settings",
         .brand = "Intel(R) Core(TM) i7-8700B CPU @ 3.20GHz",
         .systemVersion = "12.6",
         .processors = 12},
    };
    return models;
}

const Model& builtInModelNamed(std::string_view name) {
    for (const Model& model : builtInModelTable()) {
        if (model.name == name) {
            return model;
        }
    }
    throw std::runtime_error("unknown model \"" + std::string(name) +
                             "\"; \"simulated-mac models\" lists them");
}

std::vector<KeyDefinition> keysOf(const Model& model) {
    std::vector<KeyDefinition> keys;
    for (const std::string_view dump : model.keyDumps) {
        const auto more =
            dump.empty() ? std::vector<KeyDefinition>() : parseKeyDump(embeddedData(dump));
        keys.insert(keys.end(), more.begin(), more.end());
    }
    if (!model.keyDumps[1].empty()) {
        // Joined tables: controllers list their keys in order.
        std::sort(keys.begin(), keys.end(),
                  [](const KeyDefinition& left, const KeyDefinition& right) {
                      return left.code < right.code;
                  });
    }
    return keys;
}

}  // namespace simulator
