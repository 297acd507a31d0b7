// Machines as data: what a model adds to its table of keys.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "simulator/machine/heat.h"
#include "simulator/machine/key_table.h"

namespace simulator {

struct Model {
    std::string_view name;
    std::string_view description;  // one line; "" for a machine that is not built in
    std::string_view brand;
    std::string_view systemVersion;
    ControllerKind controller = ControllerKind::kNone;
    int processors = 8;                   // logical
    std::string_view keyDumps[2] = {};    // names of embedded tables, joined; unused ones are ""
    std::string_view powerSettings = "";  // an embedded print of the power tool, or ""
    bool battery = false;
    bool cpuLimits = false;     // speed limit and its like are published
    bool lowPowerFlag = false;  // the system has one (macOS 12)
    bool fansStop = false;      // while the machine is cool, whatever its table says
    bool raisesLowTargets = false;
    ManualModeRule manualModeRule = ManualModeRule::kAcceptedAtOnce;
    double startLoad = -1;         // percent; below 0: as in the table
    double reachableShare = 1.04;  // of the rated maximum, that a fan can do
    Heat::Figures figures = {};
    std::uint32_t hiddenKeys = 0;  // that "#KEY" counts and the table does not have
};

const std::vector<Model>& builtInModelTable();
const Model& builtInModelNamed(std::string_view name);  // throws std::runtime_error
std::vector<KeyDefinition> keysOf(const Model& model);

// A model for somebody's machine, from what its keys tell.
Model modelFromKeys(const std::vector<KeyDefinition>& keys);

// The machine of a model with these keys, settled in its starting load.
void furnish(World& world, const Model& model, const std::vector<KeyDefinition>& keys);

}  // namespace simulator
