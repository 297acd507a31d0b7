// Where every SimulatedMac comes from.
#include <algorithm>
#include <stdexcept>

#include "simulator/machine/embedded_data.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_dump.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/machine_directory.h"
#include "simulator/machine/simulated_mac.h"
#include "simulator/machine/value_codec.h"

namespace simulator {
namespace {

// Of fan 0, and what each further fan has less.
constexpr double kMinimum = 2000;
constexpr double kMinimumStep = 50;
constexpr double kMaximum = 6200;
constexpr double kMaximumStep = 400;

constexpr std::uint8_t kReadWrite = kAttributeRead | kAttributeWrite;

KeyDefinition numberKey(std::string_view name, std::string_view type, std::uint32_t size,
                        double number, std::uint8_t attributes = kAttributeRead) {
    KeyDefinition key = {packed(name), packed(type), size, attributes, 0, {}};
    key.bytes.resize(size);
    // No integer here is longer than a byte, but for those of 0, so their order does not matter.
    encodeNumber(key.type, size, number, IntegerOrder::kBigEndian, key.bytes.data());
    return key;
}

// A dump of some keys only, such as the temperatures, mostly lacks the count that every controller
// has and without which no program can list them.
std::vector<KeyDefinition> keysOfDump(std::string_view csv) {
    std::vector<KeyDefinition> keys = parseKeyDump(csv);
    if (std::none_of(keys.begin(), keys.end(),
                     [](const KeyDefinition& key) { return key.code == packed("#KEY"); })) {
        keys.push_back(numberKey("#KEY", "ui32", 4, 0));
    }
    return keys;
}

SimulatedMac inMemory(const Model& model, const std::vector<KeyDefinition>& keys) {
    auto machine =
        std::make_unique<Machine>(std::make_unique<MemoryStore>(keys.size()),
                                  std::make_unique<MemoryJournal>(), "/nonexistent/simulated-mac");
    machine->locked([&](World& world) { furnish(world, model, keys); });
    return SimulatedMac(std::move(machine));
}

// Read once: tests make hundreds of thousands of machines.
const std::vector<KeyDefinition>& intelSensors() {
    static const auto sensors = parseKeyDump(embeddedData("small-intel.csv"));
    return sensors;
}

const std::vector<KeyDefinition>& appleSiliconSensors() {
    static const auto sensors = parseKeyDump(embeddedData("small-apple-silicon.csv"));
    return sensors;
}

// What a small machine is, beside its sensors.
struct SmallMac {
    const std::vector<KeyDefinition>& sensors;
    std::string_view fanType;
    std::uint32_t fanTypeSize;
    std::string_view modeSuffix;  // "Md", "md", or "" for a forced mask
    double mode = 0;              // of a fan under the system's control
    bool unlockKey = false;
    bool limitsWritable = false;
};

std::vector<KeyDefinition> keysOf(const SmallMac& mac, int fans) {
    if (fans < 0 || fans > static_cast<int>(kMaxFans)) {
        throw std::runtime_error("a machine has 0 to " + std::to_string(kMaxFans) + " fans");
    }
    std::vector<KeyDefinition> keys = {numberKey("#KEY", "ui32", 4, 0)};
    for (int fan = 0; fan < fans; ++fan) {
        const auto add = [&](std::string_view suffix, double rpm, bool writable) {
            keys.push_back(numberKey(unpacked(fanKey(static_cast<std::size_t>(fan), suffix)),
                                     mac.fanType, mac.fanTypeSize, rpm,
                                     writable ? kReadWrite : kAttributeRead));
        };
        const double minimum = kMinimum - kMinimumStep * fan;
        add("Ac", minimum, false);
        add("Mn", minimum, mac.limitsWritable);
        add("Mx", kMaximum - kMaximumStep * fan, mac.limitsWritable);
        add("Tg", minimum, true);
        if (!mac.modeSuffix.empty()) {
            keys.push_back(
                numberKey(unpacked(fanKey(static_cast<std::size_t>(fan), mac.modeSuffix)), "ui8 ",
                          1, mac.mode, kReadWrite));
        }
    }
    keys.push_back(numberKey("FNum", "ui8 ", 1, fans));
    if (mac.modeSuffix.empty()) {
        keys.push_back(numberKey("FS! ", "ui16", 2, 0, kReadWrite));
    }
    if (mac.unlockKey) {
        keys.push_back(numberKey("Ftst", "ui8 ", 1, 0, kReadWrite));
    }
    keys.insert(keys.end(), mac.sensors.begin(), mac.sensors.end());
    return keys;
}

constexpr Model kSmallIntel = {.name = "small Intel machine",
                               .description = "",
                               .brand = "Intel(R) Core(TM) i7-4770HQ CPU @ 2.20GHz",
                               .systemVersion = "14.2.1",
                               .controller = ControllerKind::kT2,
                               .battery = true,
                               .cpuLimits = true,
                               .lowPowerFlag = true};

}  // namespace

SimulatedMac intelMac(int fans) {
    return inMemory(kSmallIntel, keysOf({intelSensors(), "flt ", 4, "Md"}, fans));
}

SimulatedMac intelMacWithMaskOnly(int fans) {
    Model model = kSmallIntel;
    model.controller = ControllerKind::kForcedMask;
    return inMemory(model, keysOf({.sensors = intelSensors(),
                                   .fanType = "fpe2",
                                   .fanTypeSize = 2,
                                   .modeSuffix = "",
                                   .limitsWritable = true},
                                  fans));
}

SimulatedMac appleSiliconMac(int fans, const AppleSiliconOptions& options) {
    Model model = kSmallIntel;
    model.name = "small Apple Silicon machine";
    model.brand = "Apple M1 Pro";
    model.controller = ControllerKind::kAppleSilicon;
    model.cpuLimits = false;
    model.raisesLowTargets = options.raisesLowTargets;
    model.manualModeRule = options.manualMode;
    const bool locked = options.manualMode == ManualModeRule::kRefusedUntilUnlocked;
    return inMemory(model, keysOf({.sensors = appleSiliconSensors(),
                                   .fanType = "flt ",
                                   .fanTypeSize = 4,
                                   .modeSuffix = options.lowerCaseModeKey ? "md" : "Md",
                                   .mode = locked ? 3.0 : 0.0,
                                   .unlockKey = options.unlockKey},
                                  fans));
}

SimulatedMac macWithoutController() {
    return builtInMac("NoController");
}

SimulatedMac builtInMac(std::string_view name) {
    const Model& model = builtInModelNamed(name);
    return inMemory(model, keysOf(model));
}

SimulatedMac macFromKeyDump(std::string_view csv) {
    const auto keys = keysOfDump(csv);
    return inMemory(modelFromKeys(keys), keys);
}

SimulatedMac createMachineDirectory(const std::string& directory, std::string_view modelName) {
    const Model& model = builtInModelNamed(modelName);
    return SimulatedMac(MachineDirectory::create(directory, model, keysOf(model)));
}

SimulatedMac createMachineDirectoryFromKeyDump(const std::string& directory, std::string_view csv) {
    const auto keys = keysOfDump(csv);
    return SimulatedMac(MachineDirectory::create(directory, modelFromKeys(keys), keys));
}

SimulatedMac openMachineDirectory(const std::string& directory) {
    return SimulatedMac(MachineDirectory::open(directory));
}

std::vector<ModelInfo> builtInModels() {
    std::vector<ModelInfo> models;
    for (const Model& model : builtInModelTable()) {
        models.push_back({std::string(model.name), std::string(model.description)});
    }
    return models;
}

}  // namespace simulator
