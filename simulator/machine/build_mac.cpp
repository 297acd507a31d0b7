#include "simulator/machine/build_mac.h"

#include <algorithm>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_dump.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/machine_directory.h"

namespace simulator {
namespace {

// A dump of some keys only, such as the temperatures, mostly lacks the count that every controller
// has and without which no program can list them.
std::vector<KeyDefinition> keysOfDump(std::string_view csv) {
    std::vector<KeyDefinition> keys = parseKeyDump(csv);
    const auto isCount = [](const KeyDefinition& key) { return key.code == packed("#KEY"); };
    if (std::none_of(keys.begin(), keys.end(), isCount)) {
        keys.push_back({packed("#KEY"), packed("ui32"), 4, kAttributeRead, 0, {0, 0, 0, 0}});
    }
    return keys;
}

}  // namespace

SimulatedMac makeMac(std::unique_ptr<Machine> machine) {
    return SimulatedMac(std::move(machine));
}

SimulatedMac macInMemory(const MachinePlan& plan, const std::vector<KeyDefinition>& keys,
                         double startLoad) {
    auto machine =
        std::make_unique<Machine>(std::make_unique<MemoryStore>(keys.size()),
                                  std::make_unique<MemoryJournal>(), "/nonexistent/simulated-mac");
    machine->locked([&](World& world) {
        furnish(world, plan, keys);
        startAt(world, startLoad);
    });
    return makeMac(std::move(machine));
}

SimulatedMac builtInMac(std::string_view name) {
    const BuiltInModel& model = builtInModelNamed(name);
    return macInMemory(model.plan, keysOf(model), model.startLoad);
}

SimulatedMac macFromKeyDump(std::string_view csv) {
    const auto keys = keysOfDump(csv);
    return macInMemory(planFromKeys(keys), keys);
}

SimulatedMac createMachineDirectory(const std::string& directory, std::string_view modelName) {
    const BuiltInModel& model = builtInModelNamed(modelName);
    return makeMac(MachineDirectory::create(directory, model.plan, keysOf(model), model.startLoad));
}

SimulatedMac createMachineDirectoryFromKeyDump(const std::string& directory, std::string_view csv) {
    const auto keys = keysOfDump(csv);
    return makeMac(MachineDirectory::create(directory, planFromKeys(keys), keys, -1));
}

SimulatedMac openMachineDirectory(const std::string& directory) {
    return makeMac(MachineDirectory::open(directory));
}

std::vector<ModelInfo> builtInModels() {
    std::vector<ModelInfo> models;
    for (const BuiltInModel& model : builtInModelTable()) {
        models.push_back({std::string(model.plan.name), std::string(model.description)});
    }
    return models;
}

}  // namespace simulator
