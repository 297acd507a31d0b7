#include "simulator/tools/machine_view.h"

#include "simulator/machine/faults.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"

namespace simulator::tools {
namespace {

std::string controllerName(ControllerKind kind) {
    switch (kind) {
        case ControllerKind::kNone:
            return "none";
        case ControllerKind::kForcedMask:
            return "Intel, forced mask";
        case ControllerKind::kT2:
            return "Intel with T2";
        case ControllerKind::kAppleSilicon:
            return "Apple Silicon";
    }
    return "";
}

std::string holderName(const FanRecord& fan) {
    return fan.holder == 0              ? "system"
           : fan.holder == kHeldByOther ? "other program"
                                        : "process " + std::to_string(fan.holder);
}

void viewKeys(World& world, MachineView& view) {
    for (std::uint32_t i = 0; i < world.state().keyCount; ++i) {
        const KeyRecord& key = world.keys()[i];
        const bool readable = key.readResult == 0 && KeyTable::find(world, key.code) != nullptr;
        view.keys.push_back(
            {unpacked(key.code), unpacked(key.type),
             readable ? KeyTable::decode(key, KeyTable::value(world, key).data()) : std::nullopt});
    }
}

void viewFans(const WorldState& state, MachineView& view) {
    for (std::uint32_t i = 0; i < state.fanCount; ++i) {
        const FanRecord& fan = state.fans[i];
        FanView shown;
        shown.id = static_cast<int>(i);
        shown.mode = static_cast<int>(fan.mode);
        shown.manual = fan.mode == 1;
        shown.vanished = fan.vanished != 0;
        shown.target = fan.target;
        shown.rpm = fan.rpm;
        shown.minimum = fan.minimum;
        shown.maximum = fan.maximum;
        shown.holder = holderName(fan);
        view.fans.push_back(shown);
    }
}

void viewHeat(const WorldState& state, MachineView& view) {
    const auto node = [&state](HeatNode which) {
        return state.heat.temperature[static_cast<std::size_t>(which)];
    };
    view.die = node(HeatNode::kDie);
    view.graphics = node(HeatNode::kGraphics);
    view.sink = node(HeatNode::kSink);
    view.storage = node(HeatNode::kStorage);
    view.battery = node(HeatNode::kBattery);
    view.enclosure = node(HeatNode::kEnclosure);
    view.ambient = node(HeatNode::kAmbient);
    view.totalWatts = node(HeatNode::kTotalPower);
    view.processorWatts = node(HeatNode::kProcessorPower);
    view.graphicsWatts = node(HeatNode::kGraphicsPower);
    view.throttlePercent = 100 * state.heat.throttle;
}

void viewWorld(World& world, MachineView& view) {
    view.load = world.number(Property::kLoad, 0);
    view.graphicsLoad = world.number(Property::kGraphicsLoad, 0);
    view.speed = world.number(Property::kSpeed, 1);
    view.onMains = world.number(Property::kAcPower, 1) != 0;
    if (world.number(Property::kBatteryPresent, 0) != 0) {
        view.batteryPercent = world.number(Property::kBatteryPercent);
    }
    view.extensionLoaded = world.number(Property::kExtensionLoaded, 0) != 0;
    for (const FaultRecord& fault : Faults::pending(world)) {
        view.faults.push_back(Faults::text(fault));
    }
}

}  // namespace

MachineView viewOf(SimulatedMac& mac) {
    return mac.machine().locked([](World& world) {
        const WorldState& state = world.state();
        MachineView view;
        view.model = state.model;
        view.brand = state.brand;
        view.systemVersion = state.systemVersion;
        view.controller = controllerName(state.controller);
        view.seconds = state.machineSeconds;
        view.unlocked = state.unlock != 0;
        view.forcedMask = state.forcedMask;
        viewKeys(world, view);
        viewFans(state, view);
        viewHeat(state, view);
        viewWorld(world, view);
        return view;
    });
}

}  // namespace simulator::tools
