#include "simulator/machine/power_keys.h"

#include <algorithm>
#include <cmath>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"

namespace simulator::PowerKeys {
namespace {

constexpr double kAdapterVolts = 20;
constexpr double kChargingMilliamps = 1500;
constexpr double kNominalMillivolts = 12000;
constexpr double kFullPercent = 100;
constexpr double kNoiseWatts = 0.5;  // less than this is no measure of a source in use

// Whether the machine of the dump ran from the source that the key is about.
bool isSourceOfDump(const KeyRecord& key) {
    return key.gain != 0;
}

bool onMains(World& world) {
    return world.number(Property::kAcPower, 1) != 0;
}

double totalWatts(World& world) {
    return world.state().heat.temperature[static_cast<std::size_t>(HeatNode::kTotalPower)];
}

double wattsAboveDump(World& world) {
    return totalWatts(world) -
           world.state().heat.rest[static_cast<std::size_t>(HeatNode::kTotalPower)];
}

// What the dump shows, as long as the machine runs from the source that it ran from then.
double sourceWatts(World& world, const KeyRecord& key) {
    return isSourceOfDump(key) && key.idle > kNoiseWatts
               ? std::max(key.idle + wattsAboveDump(world), 0.0)
               : totalWatts(world);
}

std::optional<double> fromBattery(World& world, Property property) {
    return world.number(Property::kBatteryPresent, 0) != 0 ? world.number(property) : std::nullopt;
}

}  // namespace

KeyRole roleOf(std::uint32_t code) {
    switch (code) {
        case packed("PDTR"):
            return KeyRole::kAdapterPower;
        case packed("VD0R"):
            return KeyRole::kAdapterVoltage;
        case packed("ID0R"):
            return KeyRole::kAdapterCurrent;
        case packed("PPBR"):
            return KeyRole::kBatteryPower;
        case packed("B0AV"):
            return KeyRole::kBatteryMillivolts;
        case packed("B0AC"):
            return KeyRole::kBatteryMilliamps;
        case packed("B0CT"):
            return KeyRole::kBatteryCycles;
        case packed("BRSC"):
            return KeyRole::kBatteryPercent;
        case packed("BATP"):
            return KeyRole::kBatteryPowered;
        default:
            return KeyRole::kStored;
    }
}

double batteryMilliamps(World& world) {
    if (const auto fixed = world.number(Property::kBatteryMilliamps)) {
        return *fixed;
    }
    if (onMains(world)) {
        return batteryCharging(world) ? kChargingMilliamps : 0;
    }
    const double millivolts = world.number(Property::kBatteryMillivolts, kNominalMillivolts);
    return -totalWatts(world) * 1e6 / std::max(millivolts, 1.0);
}

bool batteryCharging(World& world) {
    if (const auto fixed = world.number(Property::kBatteryCharging)) {
        return *fixed != 0;
    }
    return onMains(world) && world.number(Property::kBatteryPercent, kFullPercent) < kFullPercent;
}

PropertyValue speedLimit(World& world) {
    PropertyValue limit = world.property(Property::kSpeedLimit);
    constexpr double kNominal = 100;
    if (limit.form == PropertyForm::kNumber && limit.number == kNominal) {
        limit.number = std::round(kNominal * world.state().heat.throttle);
    }
    return limit;
}

std::optional<double> number(World& world, const KeyRecord& key) {
    switch (key.role) {
        case KeyRole::kAdapterPower:
            return onMains(world) ? sourceWatts(world, key) : 0;
        case KeyRole::kAdapterVoltage:
            return !onMains(world) ? 0 : key.idle > 1 ? key.idle : kAdapterVolts;
        case KeyRole::kAdapterCurrent:
            return onMains(world) ? totalWatts(world) / kAdapterVolts : 0;
        case KeyRole::kBatteryPower:
            return !onMains(world) ? sourceWatts(world, key) : isSourceOfDump(key) ? 0 : key.idle;
        case KeyRole::kBatteryMillivolts:
            return fromBattery(world, Property::kBatteryMillivolts);
        case KeyRole::kBatteryMilliamps:
            return batteryMilliamps(world);
        case KeyRole::kBatteryCycles:
            return fromBattery(world, Property::kBatteryCycles);
        case KeyRole::kBatteryPercent:
            return fromBattery(world, Property::kBatteryPercent);
        case KeyRole::kBatteryPowered:
            return onMains(world) ? 0 : 1;
        default:
            return KeyTable::decode(key, key.bytes);
    }
}

}  // namespace simulator::PowerKeys
