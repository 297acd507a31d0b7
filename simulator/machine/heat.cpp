#include "simulator/machine/heat.h"

#include <algorithm>
#include <cmath>

#include "simulator/machine/power_keys.h"

namespace simulator::Heat {
namespace {

// At full power and full fan speed the sink is 35 K above the air and the die 28 K above the sink,
// so a die in a room of 25 °C ends near 88 °C: what laptops show under a long full load.
constexpr double kSinkRiseAtFull = 35;
constexpr double kDieRiseAtFull = 28;
// Without fans the enclosure is the sink: 45 K at full power.
constexpr double kSinkRiseWithoutFans = 45;
constexpr double kStillAirShare = 0.25;
constexpr double kFlowExponent = 0.8;     // turbulent flow over fins
constexpr double kEnclosureShare = 0.05;  // of the sink's conductance, from sink to enclosure
constexpr double kEnclosureToAir = 3;     // times sink to enclosure
constexpr double kStorageRise = 4;        // K above the enclosure at full power
constexpr double kChargingRise = 3;       // K of a charging battery above the enclosure

// Time constants in seconds: die sensors follow within seconds, a heat sink within half a minute,
// the skin within minutes.
constexpr double kDieSeconds = 1;
constexpr double kGraphicsSeconds = 1.5;
constexpr double kSinkSecondsAtFullFans = 20;
constexpr double kEnclosureSeconds = 180;
constexpr double kStorageSeconds = 60;
constexpr double kBatterySeconds = 600;
constexpr double kControlSeconds = 5;

constexpr double kThrottleAbove = 100;  // °C of the die
constexpr double kThrottleUntil = 97;
constexpr double kThrottlePerSecond = 0.04;
constexpr double kThrottleFloor = 0.3;

constexpr double kFairAbove = 80;  // °C of the die, for the operating system's thermal state
constexpr double kSeriousAbove = 96;
constexpr double kCriticalAbove = 105;

// A graphics processor that draws more than this much of the processor's power has its own cooler.
constexpr double kMostGraphicsFraction = 0.7;
// Of what a machine draws at light load, the processor takes no more than this.
constexpr double kProcessorShare = 0.6;

constexpr double kBatteryWattHours = 60;
constexpr double kSecondsPerHour = 3600;

double& node(HeatState& heat, HeatNode which) {
    return heat.temperature[static_cast<std::size_t>(which)];
}

double airFlow(const WorldState& state) {
    double sum = 0;
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        sum += state.fans[i].rpm / std::max(state.fans[i].maximum, 1.0);
    }
    return state.fanCount == 0 ? 0 : std::clamp(sum / state.fanCount, 0.0, 1.5);
}

double sinkConductance(const WorldState& state) {
    const double still = state.heat.stillAirShare;
    return state.heat.sinkConductance *
           (still + (1 - still) * std::pow(airFlow(state), kFlowExponent));
}

double enclosureConductance(const HeatState& heat) {
    return heat.sinkConductance * kEnclosureShare;
}

double share(World& world, Property property) {
    return std::clamp(world.number(property, 0) / 100, 0.0, 1.0);
}

double processorFraction(World& world) {
    const HeatState& heat = world.state().heat;
    return heat.idleFraction +
           (1 - heat.idleFraction) * share(world, Property::kLoad) * heat.throttle;
}

double graphicsFraction(World& world) {
    const HeatState& heat = world.state().heat;
    return heat.graphicsFraction * share(world, Property::kGraphicsLoad) * heat.throttle;
}

double sinkAtRest(const WorldState& state, double ambient, double fraction) {
    const double throughEnclosure =
        enclosureConductance(state.heat) * kEnclosureToAir / (1 + kEnclosureToAir);
    return ambient + fraction / (sinkConductance(state) + throughEnclosure);
}

double relaxed(double value, double goal, double dt, double seconds) {
    return value + (goal - value) * (1 - std::exp(-dt / seconds));
}

// The watts that the machine shows are true to its dump at rest and to its processor at full power;
// in between, and below, they go with the fraction that makes the heat.
double processorWatts(const HeatState& heat, double fraction) {
    if (fraction <= heat.restFraction) {
        return heat.restWatts * fraction / heat.restFraction;
    }
    const double above = (fraction - heat.restFraction) / std::max(1 - heat.restFraction, 0.01);
    return heat.restWatts + above * (heat.fullWatts - heat.restWatts);
}

void updatePowers(World& world) {
    HeatState& heat = world.state().heat;
    const double processor = processorWatts(heat, processorFraction(world));
    const double graphics =
        heat.graphicsWatts * share(world, Property::kGraphicsLoad) * heat.throttle;
    node(heat, HeatNode::kProcessorPower) = processor;
    node(heat, HeatNode::kGraphicsPower) = graphics;
    node(heat, HeatNode::kTotalPower) = heat.baseWatts + processor + graphics;
    node(heat, HeatNode::kAmbient) = world.number(Property::kAmbient, heat.restAmbient);
}

// Where every node is heading, given the nodes it hangs on.
struct Goals {
    double die, graphics, enclosure, storage, battery;
};

Goals goals(World& world) {
    HeatState& heat = world.state().heat;
    const double sink = node(heat, HeatNode::kSink);
    const double enclosure = node(heat, HeatNode::kEnclosure);
    const double fraction = processorFraction(world);
    return {
        sink + heat.dieResistance * fraction,
        sink + heat.graphicsResistance * graphicsFraction(world),
        (sink + kEnclosureToAir * node(heat, HeatNode::kAmbient)) / (1 + kEnclosureToAir),
        enclosure + kStorageRise * fraction,
        enclosure + (PowerKeys::batteryCharging(world) ? kChargingRise : 0),
    };
}

void stepSink(World& world, double dt) {
    WorldState& state = world.state();
    HeatState& heat = state.heat;
    const double toAir = sinkConductance(state);
    const double toEnclosure = enclosureConductance(heat);
    const double goal =
        (processorFraction(world) + graphicsFraction(world) +
         toAir * node(heat, HeatNode::kAmbient) + toEnclosure * node(heat, HeatNode::kEnclosure)) /
        (toAir + toEnclosure);
    const double seconds = kSinkSecondsAtFullFans * heat.sinkConductance / (toAir + toEnclosure);
    node(heat, HeatNode::kSink) = relaxed(node(heat, HeatNode::kSink), goal, dt, seconds);
}

// A processor protects itself: too hot, it slows down until it is not.
void stepThrottle(HeatState& heat, double dt) {
    const double die = node(heat, HeatNode::kDie);
    if (die > kThrottleAbove) {
        heat.throttle -= kThrottlePerSecond * (die - kThrottleAbove) * dt;
    } else if (die < kThrottleUntil) {
        heat.throttle += kThrottlePerSecond * dt;
    }
    heat.throttle = std::clamp(heat.throttle, kThrottleFloor, 1.0);
}

void stepBattery(World& world, double dt) {
    PropertyValue& percent = world.property(Property::kBatteryPercent);
    if (percent.form != PropertyForm::kNumber || world.number(Property::kBatteryPresent, 0) == 0) {
        return;
    }
    const double watts = PowerKeys::batteryMilliamps(world) *
                         world.number(Property::kBatteryMillivolts, 12000) / 1e6;
    percent.number = std::clamp(
        percent.number + 100 * watts * dt / (kBatteryWattHours * kSecondsPerHour), 0.0, 100.0);
}

void copyToRest(HeatState& heat) {
    std::copy(std::begin(heat.temperature), std::end(heat.temperature), std::begin(heat.rest));
    heat.controlTemperature = node(heat, HeatNode::kDie);
}

}  // namespace

void calibrate(World& world, const Figures& figures) {
    WorldState& state = world.state();
    HeatState& heat = state.heat;
    const bool fans = state.fanCount > 0;
    heat.throttle = 1;
    heat.restAmbient = std::min(figures.ambient, figures.dieAtRest - 5);
    heat.dieResistance = kDieRiseAtFull;
    heat.graphicsWatts = figures.graphicsWatts;
    heat.graphicsFraction =
        std::min(figures.graphicsWatts / figures.fullWatts, kMostGraphicsFraction);
    heat.graphicsResistance = kDieRiseAtFull / std::max(heat.graphicsFraction, 0.1);
    heat.stillAirShare = fans ? kStillAirShare : 1;
    heat.sinkConductance = 1 / (fans ? kSinkRiseAtFull : kSinkRiseWithoutFans);
    heat.fullWatts = figures.fullWatts;

    // The power at which the equilibrium has the die of the dump.
    const double risePerPower = sinkAtRest(state, 0, 1) + heat.dieResistance;
    const double fraction = (figures.dieAtRest - heat.restAmbient) / risePerPower;
    heat.idleFraction = figures.idleFraction > 0 ? std::min(figures.idleFraction, fraction)
                                                 : std::min(fraction, 1.0);
    const double load =
        heat.idleFraction < 1 ? (fraction - heat.idleFraction) / (1 - heat.idleFraction) : 0;
    world.property(Property::kLoad) = {100 * std::clamp(load, 0.0, 1.0), PropertyForm::kNumber, 0};
    world.property(Property::kAmbient) = {heat.restAmbient, PropertyForm::kNumber, 0};
    heat.restFraction = fraction;
    heat.restWatts =
        std::min(fraction * figures.fullWatts, kProcessorShare * figures.totalWattsAtRest);
    heat.baseWatts = figures.totalWattsAtRest - heat.restWatts;
    settle(world);
    copyToRest(heat);
}

void step(World& world, double dt) {
    HeatState& heat = world.state().heat;
    updatePowers(world);
    stepSink(world, dt);
    const Goals goal = goals(world);
    const auto relax = [&heat, dt](HeatNode which, double to, double seconds) {
        node(heat, which) = relaxed(node(heat, which), to, dt, seconds);
    };
    relax(HeatNode::kDie, goal.die, kDieSeconds);
    relax(HeatNode::kGraphics, goal.graphics, kGraphicsSeconds);
    relax(HeatNode::kEnclosure, goal.enclosure, kEnclosureSeconds);
    relax(HeatNode::kStorage, goal.storage, kStorageSeconds);
    relax(HeatNode::kBattery, goal.battery, kBatterySeconds);
    heat.controlTemperature = relaxed(
        heat.controlTemperature,
        std::max(node(heat, HeatNode::kDie), node(heat, HeatNode::kGraphics)), dt, kControlSeconds);
    stepThrottle(heat, dt);
    stepBattery(world, dt);
}

void settle(World& world) {
    HeatState& heat = world.state().heat;
    updatePowers(world);
    const double ambient = node(heat, HeatNode::kAmbient);
    node(heat, HeatNode::kSink) =
        sinkAtRest(world.state(), ambient, processorFraction(world) + graphicsFraction(world));
    node(heat, HeatNode::kEnclosure) = goals(world).enclosure;
    const Goals goal = goals(world);
    node(heat, HeatNode::kDie) = goal.die;
    node(heat, HeatNode::kGraphics) = goal.graphics;
    node(heat, HeatNode::kStorage) = goal.storage;
    node(heat, HeatNode::kBattery) = goal.battery;
    heat.controlTemperature = std::max(goal.die, goal.graphics);
}

int thermalState(const HeatState& heat) {
    const double die = heat.temperature[static_cast<std::size_t>(HeatNode::kDie)];
    return die > kCriticalAbove ? 3 : die > kSeriousAbove ? 2 : die > kFairAbove ? 1 : 0;
}

}  // namespace simulator::Heat
