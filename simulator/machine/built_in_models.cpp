#include <algorithm>
#include <stdexcept>
#include <string>

#include "simulator/machine/embedded_data.h"
#include "simulator/machine/key_dump.h"
#include "simulator/machine/model.h"

namespace simulator {
namespace {

// Of an M-series die, no more than this of its full power is drawn at rest.
constexpr double kAppleSiliconIdle = 0.12;

// Fixed-point fans and the forced mask; starts at light load as its owner left it, fans at minimum.
BuiltInModel macBookPro11() {
    BuiltInModel model;
    model.description = "15-inch laptop of 2015: two fpe2 fans, forced mask \"FS! \", no mode keys";
    model.keyDumps = {"MacBookPro11_4.csv"};
    model.plan.name = "MacBookPro11,4";
    model.plan.brand = "Intel(R) Core(TM) i7-4770HQ CPU @ 2.20GHz";
    model.plan.systemVersion = "11.7.10";
    model.plan.controller = ControllerKind::kForcedMask;
    model.plan.processors = 8;
    model.plan.battery = true;
    model.plan.cpuLimits = true;
    model.plan.lowPowerFlag = false;
    model.plan.powerSettings = embeddedData("power-laptop-2015.txt");
    return model;
}

// Starts on battery at light load, fans at minimum.
BuiltInModel macBookPro16() {
    BuiltInModel model;
    model.description =
        "16-inch laptop with T2: two float fans with mode keys, no mask, on battery";
    model.keyDumps = {"MacBookPro16_1.csv"};
    model.plan.name = "MacBookPro16,1";
    model.plan.brand = "Intel(R) Core(TM) i9-9880H CPU @ 2.30GHz";
    model.plan.systemVersion = "14.2.1";
    model.plan.controller = ControllerKind::kT2;
    model.plan.processors = 16;
    model.plan.battery = true;
    model.plan.cpuLimits = true;
    model.plan.reachableShare = 1.06;
    model.plan.figures.fullWatts = 65;
    model.plan.figures.graphicsWatts = 50;
    model.plan.powerSettings = embeddedData("power-laptop-t2.txt");
    return model;
}

BuiltInModel iMac18() {
    BuiltInModel model;
    model.description = "27-inch desktop of 2017: one fpe2 fan, forced mask, no battery";
    model.keyDumps = {"iMac18_3.csv"};
    model.plan.name = "iMac18,3";
    model.plan.brand = "Intel(R) Core(TM) i5-7400 CPU @ 3.00GHz";
    model.plan.systemVersion = "13.6.3";
    model.plan.controller = ControllerKind::kForcedMask;
    model.plan.processors = 4;
    model.plan.cpuLimits = true;
    model.plan.figures.fullWatts = 65;
    model.plan.figures.graphicsWatts = 100;
    model.plan.powerSettings = embeddedData("power-desktop.txt");
    return model;
}

BuiltInModel macPro7() {
    BuiltInModel model;
    model.description = "tower of 2019: four float fans with mode keys, 98 sensors without a card";
    model.keyDumps = {"MacPro7_1.csv"};
    model.plan.name = "MacPro7,1";
    model.plan.brand = "Intel(R) Xeon(R) W-3235 CPU @ 3.30GHz";
    model.plan.systemVersion = "14.2.1";
    model.plan.controller = ControllerKind::kT2;
    model.plan.processors = 24;
    model.plan.cpuLimits = true;
    model.plan.lowPowerFlag = false;
    model.plan.figures.fullWatts = 180;
    model.plan.figures.graphicsWatts = 200;
    model.plan.powerSettings = embeddedData("power-desktop.txt");
    return model;
}

BuiltInModel macBook10() {
    BuiltInModel model;
    model.description = "12-inch laptop of 2017 without a fan";
    model.keyDumps = {"MacBook10_1.csv"};
    model.plan.name = "MacBook10,1";
    model.plan.brand = "Intel(R) Core(TM) i5-7Y54 CPU @ 1.20GHz";
    model.plan.systemVersion = "13.6.3";
    model.plan.controller = ControllerKind::kForcedMask;
    model.plan.processors = 4;
    model.plan.battery = true;
    model.plan.cpuLimits = true;
    model.plan.figures.fullWatts = 10;
    model.plan.figures.graphicsWatts = 4;
    model.plan.powerSettings = embeddedData("power-laptop-2015.txt");
    return model;
}

// What the M-series laptops share; their dumps hold temperatures only, fans and powers are added.
BuiltInModel appleSiliconLaptop(std::string_view name, std::string_view brand, int processors) {
    BuiltInModel model;
    model.plan.name = name;
    model.plan.brand = brand;
    model.plan.systemVersion = "14.2.1";
    model.plan.controller = ControllerKind::kAppleSilicon;
    model.plan.appleSilicon = true;
    model.plan.processors = processors;
    model.plan.battery = true;
    model.plan.fansMayRest = true;
    model.plan.figures.idleFraction = kAppleSiliconIdle;
    model.plan.figures.fullWatts = 35;
    model.plan.figures.graphicsWatts = 30;
    return model;
}

// Starts busy, as in its dump: the fans run inside their range in mode 0, so they can be leased at
// once. At no load they stop.
BuiltInModel m1Pro() {
    BuiltInModel model = appleSiliconLaptop("M1Pro", "Apple M1 Pro", 10);
    model.description = "laptop, busy: two fans, manual mode accepted at once, no unlock key";
    model.keyDumps = {"apple-m1-pro-temperatures.csv", "apple-m1-pro-fans-power.csv"};
    model.plan.powerSettings = embeddedData("power-laptop-apple-silicon.txt");
    return model;
}

// Starts at rest: fans off in mode 3, held by the system. Under load they run, still in mode 3.
BuiltInModel m4Max() {
    BuiltInModel model = appleSiliconLaptop("M4Max", "Apple M4 Max", 16);
    model.description =
        "laptop at rest, fans off: manual mode refused (0x82) until \"Ftst\" is set";
    model.keyDumps = {"apple-m4-pro-temperatures.csv", "apple-m4-max-fans-power.csv"};
    model.plan.manualModeRule = ManualModeRule::kRefusedUntilUnlocked;
    model.plan.reachableShare = 8560.0 / 7826.0;  // a target of 10000 rpm ends there
    model.plan.figures.fullWatts = 60;
    model.plan.figures.graphicsWatts = 60;
    model.plan.powerSettings = embeddedData("power-laptop-high-power.txt");
    model.startLoad = 2;
    return model;
}

// Starts at moderate load, as in its dump: fans at minimum in mode 0.
BuiltInModel m5Pro() {
    BuiltInModel model = appleSiliconLaptop("M5Pro", "Apple M5 Pro", 15);
    model.description = "laptop, light load: lower-case mode keys, too low targets are raised";
    model.keyDumps = {"apple-m5-pro-temperatures.csv", "apple-m5-pro-fans-power.csv"};
    model.plan.systemVersion = "26.1";
    model.plan.raisesLowTargets = true;
    model.plan.reachableShare = 9600.0 / 7826.0;
    model.plan.figures.fullWatts = 45;
    model.plan.figures.graphicsWatts = 45;
    model.plan.powerSettings = embeddedData("power-laptop-high-power.txt");
    return model;
}

BuiltInModel noController() {
    BuiltInModel model;
    model.description = "a machine without a controller, a battery or power settings";
    model.plan.name = "NoController";
    model.plan.brand = "Intel(R) Core(TM) i7-8700B CPU @ 3.20GHz";
    model.plan.systemVersion = "12.6";
    model.plan.processors = 12;
    model.plan.lowPowerFlag = false;
    return model;
}

}  // namespace

const std::vector<BuiltInModel>& builtInModelTable() {
    static const std::vector<BuiltInModel> models = {
        macBookPro11(), macBookPro16(), iMac18(), macPro7(),     macBook10(),
        m1Pro(),        m4Max(),        m5Pro(),  noController()};
    return models;
}

const BuiltInModel& builtInModelNamed(std::string_view name) {
    const auto& models = builtInModelTable();
    const auto found =
        std::find_if(models.begin(), models.end(),
                     [name](const BuiltInModel& model) { return model.plan.name == name; });
    if (found == models.end()) {
        throw std::runtime_error("unknown model \"" + std::string(name) +
                                 "\"; \"simulated-mac models\" lists them");
    }
    return *found;
}

std::vector<KeyDefinition> keysOf(const BuiltInModel& model) {
    std::vector<KeyDefinition> keys;
    for (const std::string_view dump : model.keyDumps) {
        const auto more = parseKeyDump(embeddedData(dump));
        keys.insert(keys.end(), more.begin(), more.end());
    }
    if (model.keyDumps.size() > 1) {
        // Joined tables: controllers list their keys in order.
        std::sort(keys.begin(), keys.end(),
                  [](const KeyDefinition& left, const KeyDefinition& right) {
                      return left.code < right.code;
                  });
    }
    return keys;
}

}  // namespace simulator
