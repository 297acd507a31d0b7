#include "simulator/machine/model.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "simulator/machine/fans.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/heat_keys.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"

namespace simulator {
namespace {

constexpr std::uint32_t kRandomSeed = 0x2545F491;

std::optional<double> numberOf(World& world, std::string_view name) {
    const KeyRecord* key = KeyTable::find(world, packed(name));
    return key == nullptr || key->readResult != 0 ? std::nullopt : KeyTable::number(world, *key);
}

void give(World& world, std::uint32_t code, KeyRole role, std::size_t fan = 0) {
    if (KeyRecord* key = KeyTable::find(world, code)) {
        key->role = role;
        key->fan = static_cast<std::uint8_t>(fan);
    }
}

double fanNumber(World& world, std::size_t fan, std::string_view suffix) {
    return numberOf(world, unpacked(fanKey(fan, suffix))).value_or(0);
}

void furnishFan(World& world, const MachinePlan& plan, std::size_t index) {
    FanRecord& fan = world.state().fans[index];
    fan.rpm = fanNumber(world, index, "Ac");
    fan.target = fanNumber(world, index, "Tg");
    fan.minimum = fanNumber(world, index, "Mn");
    fan.maximum = fanNumber(world, index, "Mx");
    fan.reachable = fan.maximum * plan.reachableShare;
    fan.mode = static_cast<std::uint32_t>(
        std::max(fanNumber(world, index, "Md"), fanNumber(world, index, "md")));
    give(world, fanKey(index, "Ac"), KeyRole::kFanRpm, index);
    give(world, fanKey(index, "Tg"), KeyRole::kFanTarget, index);
    give(world, fanKey(index, "Mn"), KeyRole::kFanMinimum, index);
    give(world, fanKey(index, "Mx"), KeyRole::kFanMaximum, index);
    give(world, fanKey(index, "Md"), KeyRole::kFanMode, index);
    give(world, fanKey(index, "md"), KeyRole::kFanMode, index);
}

void furnishFans(World& world, const MachinePlan& plan) {
    WorldState& state = world.state();
    const double count = numberOf(world, "FNum").value_or(0);
    state.fanCount =
        static_cast<std::uint32_t>(std::clamp(count, 0.0, static_cast<double>(kMaxFans)));
    for (std::size_t i = 0; i < state.fanCount; ++i) {
        furnishFan(world, plan, i);
    }
    state.automaticMode = state.appleSilicon != 0 && state.fanCount > 0 ? state.fans[0].mode : 0;
    if (count <= static_cast<double>(kMaxFans)) {
        give(world, packed("FNum"), KeyRole::kFanCount);
    }
    if (state.controller == ControllerKind::kForcedMask) {
        state.forcedMask = static_cast<std::uint32_t>(numberOf(world, "FS! ").value_or(0));
        give(world, packed("FS! "), KeyRole::kForcedMask);
    }
    state.unlock = static_cast<std::uint32_t>(numberOf(world, "Ftst").value_or(0));
    give(world, packed("Ftst"), KeyRole::kUnlock);
    give(world, packed("#KEY"), KeyRole::kKeyCount);
}

void setNumber(World& world, Property property, std::optional<double> value) {
    world.property(property) = {value.value_or(0),
                                value ? PropertyForm::kNumber : PropertyForm::kAbsent, 0};
}

void furnishPower(World& world, const MachinePlan& plan) {
    const bool onBattery = plan.battery && numberOf(world, "BATP").value_or(0) != 0;
    setNumber(world, Property::kAcPower, onBattery ? 0 : 1);
    setNumber(world, Property::kBatteryPresent, plan.battery ? 1 : 0);
    if (plan.battery) {
        setNumber(world, Property::kBatteryPercent,
                  numberOf(world, "BRSC").value_or(numberOf(world, "BUIC").value_or(100)));
        setNumber(world, Property::kBatteryMillivolts, numberOf(world, "B0AV").value_or(12000));
        setNumber(world, Property::kBatteryCycles, numberOf(world, "B0CT").value_or(0));
    }
    for (std::uint32_t i = 0; i < world.state().keyCount; ++i) {
        KeyRecord& key = world.keys()[i];
        const KeyRole role = PowerKeys::roleOf(key.code);
        if (role != KeyRole::kStored && key.role == KeyRole::kStored && key.readResult == 0) {
            key.idle = static_cast<float>(KeyTable::decode(key, key.bytes).value_or(0));
            key.role = role;
            key.gain = onBattery == (role == KeyRole::kBatteryPower) ? 1.0F : 0.0F;
        }
    }
}

void furnishWorld(World& world, const MachinePlan& plan) {
    setNumber(world, Property::kSpeed, 1);
    setNumber(world, Property::kGraphicsLoad, 0);
    setNumber(world, Property::kMemoryPressure, 1);
    setNumber(world, Property::kProcessors, plan.processors);
    setNumber(world, Property::kExtensionLoaded, 0);
    setNumber(world, Property::kExtensionApproval, 0);
    setNumber(world, Property::kExtensionAnswers, 1);
    setNumber(world, Property::kAssertionsAnswer, 1);
    // Installed on every Intel machine: in the library, and in the application that brought it.
    setNumber(world, Property::kTurboApplications,
              plan.cpuLimits ? kTurboInLibrary | kTurboApplication : 0);
    if (plan.cpuLimits) {
        setNumber(world, Property::kSpeedLimit, 100);
        setNumber(world, Property::kSchedulerLimit, 100);
        setNumber(world, Property::kAvailableCpus, plan.processors);
    }
    if (plan.lowPowerFlag) {
        setNumber(world, Property::kLowPowerFlag, 0);
    }
}

template <std::size_t kSize>
void copyText(std::string_view text, char (&into)[kSize]) {
    const std::size_t size = std::min(text.size(), kSize - 1);
    std::memcpy(into, text.data(), size);
    into[size] = '\0';
}

bool has(const std::vector<KeyDefinition>& keys, std::string_view name) {
    return std::any_of(keys.begin(), keys.end(), [code = packed(name)](const KeyDefinition& key) {
        return key.code == code;
    });
}

}  // namespace

void furnish(World& world, const MachinePlan& plan, const std::vector<KeyDefinition>& keys) {
    WorldState& state = world.state();
    copyText(plan.name, state.model);
    copyText(plan.brand, state.brand);
    copyText(plan.systemVersion, state.systemVersion);
    state.controller = plan.controller;
    state.manualModeRule = plan.manualModeRule;
    state.appleSilicon = plan.appleSilicon ? 1 : 0;
    state.raisesLowTargets = plan.raisesLowTargets ? 1 : 0;
    state.fansMayRest = plan.fansMayRest ? 1 : 0;
    state.randomState = kRandomSeed;
    world.store().reserveKeys(keys.size());
    for (const KeyDefinition& key : keys) {
        KeyTable::put(world, key);
    }
    furnishFans(world, plan);
    furnishWorld(world, plan);
    furnishPower(world, plan);
    Heat::Figures figures = plan.figures;
    figures.dieAtRest = HeatKeys::dieTemperature(world);
    figures.totalWattsAtRest = numberOf(world, "PSTR").value_or(figures.totalWattsAtRest);
    Heat::calibrate(world, figures);
    Fans::calibrate(world);
    HeatKeys::connect(world);
    readPowerSettings(world, plan.powerSettings);
}

void startAt(World& world, double load) {
    if (load >= 0) {
        setNumber(world, Property::kLoad, load);
        settleHeat(world);
    }
}

MachinePlan planFromKeys(const std::vector<KeyDefinition>& keys) {
    MachinePlan plan;
    plan.name = "from a key dump";
    plan.appleSilicon = has(keys, "TCMb") || has(keys, "F0md") || has(keys, "Tp01");
    plan.brand = plan.appleSilicon ? "Apple M" : "Intel(R) Core(TM) CPU @ 2.00GHz";
    plan.systemVersion = "14.2.1";
    plan.battery = has(keys, "B0AV");
    plan.cpuLimits = !plan.appleSilicon;
    plan.controller = plan.appleSilicon   ? ControllerKind::kAppleSilicon
                      : has(keys, "F0Md") ? ControllerKind::kT2
                                          : ControllerKind::kForcedMask;
    plan.manualModeRule =
        has(keys, "Ftst") ? ManualModeRule::kRefusedUntilUnlocked : ManualModeRule::kAcceptedAtOnce;
    plan.fansMayRest = plan.appleSilicon;
    plan.powerSettings = plan.battery ? "AC Power:\n displaysleep 10\n sleep 1\nBattery Power:\n"
                                        " displaysleep 2\n sleep 1\n"
                                      : "AC Power:\n displaysleep 10\n sleep 1\n";
    return plan;
}

}  // namespace simulator
