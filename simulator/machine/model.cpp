#include "simulator/machine/model.h"

#include <algorithm>

#include "simulator/machine/embedded_data.h"
#include "simulator/machine/fans.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/heat_keys.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"
#include "simulator/machine/power_settings.h"
#include "simulator/machine/value_codec.h"

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

void furnishFan(World& world, const Model& model, std::size_t index) {
    FanRecord& fan = world.state().fans[index];
    fan.rpm = fanNumber(world, index, "Ac");
    fan.target = fanNumber(world, index, "Tg");
    fan.minimum = fanNumber(world, index, "Mn");
    fan.maximum = fanNumber(world, index, "Mx");
    fan.reachable = fan.maximum * model.reachableShare;
    fan.mode = static_cast<std::uint32_t>(
        std::max(fanNumber(world, index, "Md"), fanNumber(world, index, "md")));
    give(world, fanKey(index, "Ac"), KeyRole::kFanRpm, index);
    give(world, fanKey(index, "Tg"), KeyRole::kFanTarget, index);
    give(world, fanKey(index, "Mn"), KeyRole::kFanMinimum, index);
    give(world, fanKey(index, "Mx"), KeyRole::kFanMaximum, index);
    give(world, fanKey(index, "Md"), KeyRole::kFanMode, index);
    give(world, fanKey(index, "md"), KeyRole::kFanMode, index);
    if (fan.mode == kModeSystem) {
        world.state().automaticMode = kModeSystem;
    }
}

void furnishFans(World& world, const Model& model) {
    WorldState& state = world.state();
    const double count = numberOf(world, "FNum").value_or(0);
    state.fanCount =
        static_cast<std::uint32_t>(std::clamp(count, 0.0, static_cast<double>(kMaxFans)));
    for (std::size_t i = 0; i < state.fanCount; ++i) {
        furnishFan(world, model, i);
    }
    if (count <= static_cast<double>(kMaxFans)) {
        give(world, packed("FNum"), KeyRole::kFanCount);
    }
    KeyRecord* mask = KeyTable::find(world, packed("FS! "));
    if (mask != nullptr && state.controller == ControllerKind::kForcedMask) {
        mask->role = KeyRole::kForcedMask;
        KeyTable::store(world, *mask, mask->bytes);
    }
    state.unlock = static_cast<std::uint32_t>(numberOf(world, "Ftst").value_or(0));
    give(world, packed("Ftst"), KeyRole::kUnlock);
    give(world, packed("#KEY"), KeyRole::kKeyCount);
    // Who took a fan that the table has in manual mode is not known, but somebody did.
    Fans::recordHolder(state, kHeldByOther);
}

void setNumber(World& world, Property property, std::optional<double> value) {
    world.property(property) = {value.value_or(0),
                                value ? PropertyForm::kNumber : PropertyForm::kAbsent, 0};
}

void furnishPower(World& world, const Model& model) {
    const bool onBattery = model.battery && numberOf(world, "BATP").value_or(0) != 0;
    setNumber(world, Property::kAcPower, onBattery ? 0 : 1);
    setNumber(world, Property::kBatteryPresent, model.battery ? 1 : 0);
    if (model.battery) {
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

void furnishWorld(World& world, const Model& model) {
    setNumber(world, Property::kSpeed, 1);
    setNumber(world, Property::kGraphicsLoad, 0);
    setNumber(world, Property::kMemoryPressure, 1);
    setNumber(world, Property::kProcessors, model.processors);
    setNumber(world, Property::kManualMode, static_cast<double>(model.manualModeRule));
    setNumber(world, Property::kExtensionLoaded, 0);
    setNumber(world, Property::kExtensionApproval, 0);
    setNumber(world, Property::kExtensionAnswers, 1);
    setNumber(world, Property::kAssertionsAnswer, 1);
    // Installed on every Intel machine: in the library, and in the application that brought it.
    setNumber(world, Property::kTurboApplications,
              model.cpuLimits ? kTurboInLibrary | kTurboApplication : 0);
    if (model.cpuLimits) {
        setNumber(world, Property::kSpeedLimit, 100);
        setNumber(world, Property::kSchedulerLimit, 100);
        setNumber(world, Property::kAvailableCpus, model.processors);
    }
    setNumber(world, Property::kLowPowerFlag,
              model.lowPowerFlag ? std::optional(0.0) : std::nullopt);
}

bool has(const std::vector<KeyDefinition>& keys, std::string_view name) {
    return std::any_of(keys.begin(), keys.end(), [code = packed(name)](const KeyDefinition& key) {
        return key.code == code;
    });
}

}  // namespace

void furnish(World& world, const Model& model, const std::vector<KeyDefinition>& keys) {
    WorldState& state = world.state();
    copyText(model.name, state.model);
    copyText(model.brand, state.brand);
    copyText(model.systemVersion, state.systemVersion);
    state.controller = model.controller;
    state.appleSilicon = model.controller == ControllerKind::kAppleSilicon ? 1 : 0;
    state.raisesLowTargets = model.raisesLowTargets ? 1 : 0;
    state.hiddenKeys = model.hiddenKeys;
    state.randomState = kRandomSeed;
    world.store().reserveKeys(keys.size());
    for (const KeyDefinition& key : keys) {
        KeyTable::put(world, key);
    }
    furnishFans(world, model);
    furnishWorld(world, model);
    furnishPower(world, model);
    Heat::Figures figures = model.figures;
    figures.dieAtRest = HeatKeys::dieTemperature(world);
    figures.totalWattsAtRest = numberOf(world, "PSTR").value_or(figures.totalWattsAtRest);
    Heat::calibrate(world, figures);
    Fans::calibrate(world, model.fansStop);
    HeatKeys::connect(world);
    if (!model.powerSettings.empty()) {
        PowerSettings::read(world, embeddedData(model.powerSettings));
    }
    if (model.startLoad >= 0) {
        setNumber(world, Property::kLoad, model.startLoad);
        settleHeat(world);
    }
}

Model modelFromKeys(const std::vector<KeyDefinition>& keys) {
    const bool appleSilicon = has(keys, "TCMb") || has(keys, "F0md") || has(keys, "Tp01");
    Model model;
    model.name = "from a key dump";
    model.brand = appleSilicon ? "Apple M" : "Intel(R) Core(TM) CPU @ 2.00GHz";
    model.systemVersion = "14.2.1";
    model.battery = has(keys, "B0AV");
    model.cpuLimits = !appleSilicon;
    model.lowPowerFlag = true;
    model.controller = appleSilicon        ? ControllerKind::kAppleSilicon
                       : has(keys, "F0Md") ? ControllerKind::kT2
                                           : ControllerKind::kForcedMask;
    model.manualModeRule =
        has(keys, "Ftst") ? ManualModeRule::kRefusedUntilUnlocked : ManualModeRule::kAcceptedAtOnce;
    model.fansStop = appleSilicon;
    model.powerSettings = !model.battery  ? "power-desktop.txt"
                          : !appleSilicon ? "power-laptop-2015.txt"
                                          : "power-laptop-apple-silicon.txt";
    for (const KeyDefinition& key : keys) {
        const auto listed = static_cast<double>(keys.size());
        if (key.code == packed("#KEY") && !key.bytes.empty()) {
            const double count =
                decodedNumber(key.type, key.size, key.bytes.data(), IntegerOrder::kBigEndian)
                    .value_or(0);
            model.hiddenKeys = static_cast<std::uint32_t>(std::max(count - listed, 0.0));
        }
    }
    return model;
}

}  // namespace simulator
