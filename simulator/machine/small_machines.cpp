// Small machines for tests: a key or two of each kind, and fans.
#include <stdexcept>
#include <string>

#include "simulator/machine/build_mac.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/value_codec.h"

namespace simulator {
namespace {

constexpr std::uint8_t kReadOnly = kAttributeRead;
constexpr std::uint8_t kReadWrite = kAttributeRead | kAttributeWrite;

constexpr double kFirstMaximum = 6200;
constexpr double kMaximumStep = 400;
constexpr double kFirstMinimum = 2000;
constexpr double kMinimumStep = 50;

class KeyList {
public:
    explicit KeyList(IntegerOrder order) : order_(order) {}

    void add(std::string_view name, std::string_view type, std::uint32_t size, double number,
             std::uint8_t attributes = kReadOnly) {
        KeyDefinition key;
        key.code = packed(name);
        key.type = packed(type);
        key.size = size;
        key.attributes = attributes;
        key.bytes.resize(size);
        encodeNumber(key.type, size, number, name == "#KEY" ? IntegerOrder::kBigEndian : order_,
                     key.bytes.data());
        keys_.push_back(std::move(key));
    }
    void addFloat(std::string_view name, double number, std::uint8_t attributes = kReadOnly) {
        add(name, "flt ", 4, number, attributes);
    }
    void addTemperature(std::string_view name, double celsius) { add(name, "sp78", 2, celsius); }

    std::vector<KeyDefinition> take() { return std::move(keys_); }

private:
    IntegerOrder order_;
    std::vector<KeyDefinition> keys_;
};

void checkFanCount(int fans) {
    if (fans < 0 || fans > static_cast<int>(kMaxFans)) {
        throw std::runtime_error("a machine has 0 to " + std::to_string(kMaxFans) + " fans");
    }
}

std::string fanPrefix(int fan) {
    return {'F', static_cast<char>('0' + fan)};
}

// One fan's keys in the form of the machine; limits as attributes say whether they can be written.
void addFan(KeyList& keys, int fan, std::string_view type, std::uint32_t size,
            std::uint8_t limitAttributes) {
    const std::string prefix = fanPrefix(fan);
    const double minimum = kFirstMinimum - kMinimumStep * fan;
    keys.add(prefix + "Ac", type, size, minimum);
    keys.add(prefix + "Mn", type, size, minimum, limitAttributes);
    keys.add(prefix + "Mx", type, size, kFirstMaximum - kMaximumStep * fan, limitAttributes);
    keys.add(prefix + "Tg", type, size, minimum, kReadWrite);
}

void addIntelSensors(KeyList& keys) {
    keys.addFloat("PC0R", 8);
    keys.addFloat("PDTR", 20);
    keys.addFloat("PSTR", 20);
    keys.addTemperature("TB0T", 33);
    keys.addTemperature("TC0C", 52);
    keys.addTemperature("TC0P", 50);
    keys.addTemperature("TC1C", 51);
    keys.addTemperature("TG0P", 47);
    keys.addTemperature("TH0A", 40);
    keys.addFloat("IC0R", 0.7);
    keys.addFloat("VC0C", 0.9);
    keys.addFloat("VD0R", 20);
    keys.addTemperature("TH0x", -127);  // a sensor without reading, as every real machine has some
}

MachinePlan intelPlan() {
    MachinePlan plan;
    plan.name = "small Intel machine";
    plan.brand = "Intel(R) Core(TM) i7-4770HQ CPU @ 2.20GHz";
    plan.systemVersion = "14.2.1";
    plan.battery = true;
    plan.cpuLimits = true;
    return plan;
}

}  // namespace

SimulatedMac intelMac(int fans) {
    checkFanCount(fans);
    KeyList keys(IntegerOrder::kBigEndian);
    keys.add("#KEY", "ui32", 4, 0);
    for (int fan = 0; fan < fans; ++fan) {
        addFan(keys, fan, "flt ", 4, kReadOnly);
        keys.add(fanPrefix(fan) + "Md", "ui8 ", 1, 0, kReadWrite);
    }
    keys.add("FNum", "ui8 ", 1, fans);
    addIntelSensors(keys);
    MachinePlan plan = intelPlan();
    plan.controller = ControllerKind::kT2;
    return macInMemory(plan, keys.take());
}

SimulatedMac intelMacWithMaskOnly(int fans) {
    checkFanCount(fans);
    KeyList keys(IntegerOrder::kBigEndian);
    keys.add("#KEY", "ui32", 4, 0);
    for (int fan = 0; fan < fans; ++fan) {
        addFan(keys, fan, "fpe2", 2, kReadWrite);
    }
    keys.add("FNum", "ui8 ", 1, fans);
    keys.add("FS! ", "ui16", 2, 0, kReadWrite);
    addIntelSensors(keys);
    MachinePlan plan = intelPlan();
    plan.controller = ControllerKind::kForcedMask;
    return macInMemory(plan, keys.take());
}

SimulatedMac appleSiliconMac(int fans, const AppleSiliconOptions& options) {
    using Mode = AppleSiliconOptions::ManualMode;
    checkFanCount(fans);
    const bool locked = options.manualMode == Mode::kRefusedUntilUnlocked;
    KeyList keys(IntegerOrder::kLittleEndian);
    keys.add("#KEY", "ui32", 4, 0);
    for (int fan = 0; fan < fans; ++fan) {
        addFan(keys, fan, "flt ", 4, kReadOnly);
        keys.add(fanPrefix(fan) + (options.lowerCaseModeKey ? "md" : "Md"), "ui8 ", 1,
                 locked ? 3 : 0, kReadWrite);
    }
    keys.add("FNum", "ui8 ", 1, fans);
    if (options.unlockKey) {
        keys.add("Ftst", "ui8 ", 1, 0, kReadWrite);
    }
    keys.addFloat("PSTR", 15);
    keys.addFloat("TB0T", 31);
    keys.addFloat("TCMb", 50);
    keys.addFloat("TH0x", 36);
    keys.addFloat("Tg05", 46);
    keys.addFloat("Tp01", 50);
    keys.addFloat("Tp05", 49);
    MachinePlan plan;
    plan.name = "small Apple Silicon machine";
    plan.brand = "Apple M1 Pro";
    plan.systemVersion = "14.2.1";
    plan.controller = ControllerKind::kAppleSilicon;
    plan.appleSilicon = true;
    plan.battery = true;
    plan.raisesLowTargets = options.raisesLowTargets;
    plan.manualModeRule = locked ? ManualModeRule::kRefusedUntilUnlocked
                          : options.manualMode == Mode::kWithoutEffect
                              ? ManualModeRule::kWithoutEffect
                              : ManualModeRule::kAcceptedAtOnce;
    return macInMemory(plan, keys.take());
}

SimulatedMac macWithoutController() {
    const BuiltInModel& model = builtInModelNamed("NoController");
    return macInMemory(model.plan, {});
}

}  // namespace simulator
