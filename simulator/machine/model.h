// Machines as data: what a model adds to its table of keys.
#pragma once

#include <string_view>
#include <vector>

#include "simulator/machine/heat.h"
#include "simulator/machine/world.h"

namespace simulator {

struct KeyDefinition;

// Everything that a key dump does not tell.
struct MachinePlan {
    std::string_view name;
    std::string_view brand;
    std::string_view systemVersion;
    std::string_view powerSettings;  // in the power tool's own print layout, or ""
    ControllerKind controller = ControllerKind::kNone;
    ManualModeRule manualModeRule = ManualModeRule::kAcceptedAtOnce;
    int processors = 8;
    bool appleSilicon = false;
    bool raisesLowTargets = false;
    bool fansMayRest = false;  // stopped by the system while the machine is cool
    bool battery = false;
    bool cpuLimits = false;        // speed limit and its like are published
    bool lowPowerFlag = true;      // the system has one (macOS 12)
    double reachableShare = 1.04;  // of the rated maximum, that a fan can do
    Heat::Figures figures;
};

// The machine of a plan with these keys, at rest as in the dump.
void furnish(World& world, const MachinePlan& plan, const std::vector<KeyDefinition>& keys);

// Puts the machine under a load (percent) in which it has settled; below 0: leaves it as it is.
void startAt(World& world, double load);

// A plan for somebody's machine, from what its keys tell.
MachinePlan planFromKeys(const std::vector<KeyDefinition>& keys);

struct BuiltInModel {
    MachinePlan plan;
    std::string_view description;
    std::vector<std::string_view> keyDumps;  // names of embedded tables, joined
    double startLoad = -1;                   // percent; below 0: as in the dump
};
const std::vector<BuiltInModel>& builtInModelTable();
const BuiltInModel& builtInModelNamed(std::string_view name);  // throws std::runtime_error
std::vector<KeyDefinition> keysOf(const BuiltInModel& model);

// Power settings from the power tool's print ("AC Power:" and lines " sleep  10").
void readPowerSettings(World& world, std::string_view print);

}  // namespace simulator
