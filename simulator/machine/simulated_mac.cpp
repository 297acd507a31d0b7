#include "simulator/machine/simulated_mac.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "simulator/machine/build_mac.h"
#include "simulator/machine/fans.h"
#include "simulator/machine/faults.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/happening_effects.h"
#include "simulator/machine/heat_keys.h"
#include "simulator/machine/key_dump.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/machine_directory.h"
#include "simulator/machine/power_settings.h"
#include "simulator/machine/value_codec.h"

namespace simulator {
namespace {

template <std::size_t kSize>
void copyText(std::string_view text, char (&into)[kSize]) {
    if (text.size() >= kSize) {
        throw std::runtime_error("too long: " + std::string(text));
    }
    std::memcpy(into, text.data(), text.size());
    into[text.size()] = '\0';
}

KeyRecord& knownKey(World& world, std::string_view name) {
    KeyRecord* key = KeyTable::find(world, packed(name));
    if (key == nullptr) {
        throw std::runtime_error("no key " + std::string(name));
    }
    return *key;
}

const FanRecord& knownFan(World& world, int fan) {
    if (fan < 0 || static_cast<std::uint32_t>(fan) >= world.state().fanCount) {
        throw std::runtime_error("no fan " + std::to_string(fan));
    }
    return world.state().fans[fan];
}

// Added sensors read 35 to 59 °C at rest, none a whole number.
constexpr int kCoolestAdded = 35;
constexpr int kAddedSpread = 25;
constexpr double kAddedFraction = 0.5;

// "T000", "T001" … "T9ZZ": no name that means something on a real machine.
std::string addedName(int index) {
    constexpr std::string_view kDigits = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr int kBase = 36;
    if (index >= 10 * kBase * kBase) {
        throw std::runtime_error("no names for more temperature keys");
    }
    const auto digit = [kDigits](int value) {
        return kDigits[static_cast<std::size_t>(value % kBase)];
    };
    return {'T', digit(index / kBase / kBase), digit(index / kBase), digit(index)};
}

void addTemperatureKey(World& world, std::uint32_t code, double celsius) {
    KeyDefinition definition;
    definition.code = code;
    definition.type = packed("flt ");
    definition.size = 4;
    definition.attributes = kAttributeRead;
    definition.bytes.resize(definition.size);
    encodeNumber(definition.type, definition.size, celsius, IntegerOrder::kBigEndian,
                 definition.bytes.data());
    KeyRecord& key = KeyTable::put(world, definition);
    key.role = KeyRole::kHeat;
    key.node = HeatNode::kSink;
    key.idle = static_cast<float>(celsius);
    key.gain = 1;
}

double temperature(World& world, HeatNode node) {
    return world.state().heat.temperature[static_cast<std::size_t>(node)];
}

// "17 41.250 4711 write F0Md=1 -> 00" becomes "F0Md=1"; "" for any line that is no write of an
// attached process.
std::string writeIn(const std::string& line) {
    const std::size_t time = line.find(' ');
    const std::size_t who = time == std::string::npos ? time : line.find(' ', time + 1);
    if (who == std::string::npos || who + 1 >= line.size() || !isDigit(line[who + 1])) {
        return "";
    }
    const std::size_t what = line.find(' ', who + 1);
    constexpr std::string_view kWrite = " write ";
    const std::size_t arrow = line.rfind(" -> ");
    if (what == std::string::npos || line.compare(what, kWrite.size(), kWrite) != 0 ||
        arrow == std::string::npos) {
        return "";
    }
    const std::size_t start = what + kWrite.size();
    std::string text = line.substr(start, arrow - start);
    const std::string result = line.substr(arrow + 4, line.find(' ', arrow + 4) - (arrow + 4));
    return result == "00" ? text : text + "!" + result;
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

SimulatedMac::SimulatedMac(std::unique_ptr<Machine> machine)
    : Happenings(*machine, Moment{}), owned_(std::move(machine)) {}

SimulatedMac::SimulatedMac(SimulatedMac&& other) noexcept = default;
SimulatedMac::~SimulatedMac() = default;

Attachment SimulatedMac::attach() {
    return Attachment(*owned_);
}

double SimulatedMac::now() {
    return owned_->locked([](World& world) { return world.state().machineSeconds; });
}

void SimulatedMac::advance(double seconds) {
    owned_->advance(seconds);
}

void SimulatedMac::setCallDuration(double seconds) {
    owned_->locked([seconds](World& world) { world.state().callDuration = seconds; });
}

void SimulatedMac::followHostClock() {
    owned_->locked([](World& world) { world.state().clockMode = ClockMode::kHost; });
}

HappeningsToCome SimulatedMac::at(double seconds) {
    return {*owned_, {Moment::Kind::kTime, seconds, 0}};
}

HappeningsToCome SimulatedMac::after(double seconds) {
    return at(now() + seconds);
}

HappeningsToCome SimulatedMac::atCall(std::uint64_t k) {
    const auto made = owned_->locked([](World& world) { return world.state().totalCalls; });
    return {*owned_, {Moment::Kind::kCall, 0, made + k}};
}

HappeningsToCome SimulatedMac::atWrite(std::uint64_t k) {
    const auto made = owned_->locked([](World& world) { return world.state().totalWrites; });
    return {*owned_, {Moment::Kind::kWrite, 0, made + k}};
}

void SimulatedMac::setKey(std::string_view key, std::string_view type,
                          const std::vector<std::uint8_t>& bytes) {
    owned_->locked([&](World& world) {
        KeyDefinition definition;
        definition.code = packed(key);
        definition.type = packed(type);
        definition.size = static_cast<std::uint32_t>(bytes.size());
        definition.attributes = kAttributeRead | kAttributeWrite;
        definition.bytes = bytes;
        KeyTable::put(world, definition);
    });
}

void SimulatedMac::setKeySize(std::string_view key, std::uint32_t size) {
    owned_->locked([&](World& world) { knownKey(world, key).size = size; });
}

void SimulatedMac::setNumber(std::string_view key, double number) {
    owned_->locked([&](World& world) {
        KeyRecord& record = knownKey(world, key);
        ValueBytes bytes = {};
        if (!KeyTable::encode(record, number, bytes)) {
            throw std::runtime_error("key " + std::string(key) + " holds no number");
        }
        KeyTable::store(world, record, bytes.data());
    });
}

void SimulatedMac::setUnreadable(std::string_view key) {
    owned_->locked([&](World& world) {
        knownKey(world, key).readResult = static_cast<std::uint8_t>(kNotReadable);
    });
}

void SimulatedMac::removeKey(std::string_view key) {
    owned_->locked([&](World& world) { KeyTable::remove(world, packed(key)); });
}

void SimulatedMac::addTemperatureKeys(int count) {
    owned_->locked([count](World& world) {
        world.store().reserveKeys(world.state().keyCount + static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            const std::string name = addedName(i);
            const double celsius = kCoolestAdded + i % kAddedSpread + kAddedFraction;
            addTemperatureKey(world, packed(name), celsius);
        }
    });
}

bool SimulatedMac::hasKey(std::string_view key) {
    return owned_->locked(
        [&](World& world) { return KeyTable::find(world, packed(key)) != nullptr; });
}

std::size_t SimulatedMac::keyCount() {
    return owned_->locked([](World& world) { return std::size_t{world.state().keyCount}; });
}

std::optional<double> SimulatedMac::number(std::string_view key) {
    return owned_->locked([&](World& world) -> std::optional<double> {
        const KeyRecord* record = KeyTable::find(world, packed(key));
        if (record == nullptr || record->readResult != 0) {
            return std::nullopt;
        }
        // As a reader sees it: rounded to what the key's type can hold.
        return KeyTable::decode(*record, KeyTable::value(world, *record).data());
    });
}

std::vector<std::uint8_t> SimulatedMac::bytes(std::string_view key) {
    return owned_->locked([&](World& world) {
        const KeyRecord& record = knownKey(world, key);
        const ValueBytes value = KeyTable::value(world, record);
        return std::vector<std::uint8_t>(
            value.begin(), value.begin() + std::min<std::size_t>(record.size, value.size()));
    });
}

int SimulatedMac::fanCount() {
    return owned_->locked([](World& world) { return static_cast<int>(world.state().fanCount); });
}

double SimulatedMac::fanRpm(int fan) {
    return owned_->locked([fan](World& world) { return knownFan(world, fan).rpm; });
}

double SimulatedMac::fanTarget(int fan) {
    return owned_->locked([fan](World& world) { return knownFan(world, fan).target; });
}

double SimulatedMac::fanMinimum(int fan) {
    return owned_->locked([fan](World& world) { return knownFan(world, fan).minimum; });
}

double SimulatedMac::fanMaximum(int fan) {
    return owned_->locked([fan](World& world) { return knownFan(world, fan).maximum; });
}

bool SimulatedMac::fanManual(int fan) {
    return owned_->locked(
        [fan](World& world) { return Fans::manual(world.state(), static_cast<std::size_t>(fan)); });
}

bool SimulatedMac::allFansAutomatic() {
    return owned_->locked([](World& world) { return Fans::allAutomatic(world.state()); });
}

double SimulatedMac::dieTemperature() {
    return owned_->locked([](World& world) { return temperature(world, HeatNode::kDie); });
}

double SimulatedMac::heatSinkTemperature() {
    return owned_->locked([](World& world) { return temperature(world, HeatNode::kSink); });
}

void SimulatedMac::settle() {
    owned_->locked([](World& world) { settleHeat(world); });
}

std::optional<double> SimulatedMac::value(Property property) {
    return owned_->locked([property](World& world) { return world.number(property); });
}

void SimulatedMac::setCpuBrand(std::string_view text) {
    owned_->locked([text](World& world) { copyText(text, world.state().brand); });
}

void SimulatedMac::setSystemVersion(std::string_view text) {
    owned_->locked([text](World& world) { copyText(text, world.state().systemVersion); });
}

void SimulatedMac::setAppleSilicon(bool appleSilicon) {
    owned_->locked([=](World& world) { world.state().appleSilicon = appleSilicon ? 1 : 0; });
}

void SimulatedMac::setRoot(std::string_view directory) {
    owned_->setRoot(std::string(directory));
}

void SimulatedMac::hold(const Assertion& assertion) {
    owned_->locked([&assertion](World& world) {
        for (AssertionRecord& slot : world.state().assertions) {
            if (slot.used != 0) {
                continue;
            }
            copyText(assertion.process, slot.process);
            copyText(assertion.type, slot.type);
            copyText(assertion.reason, slot.reason);
            slot.pid = assertion.pid;
            slot.level = assertion.level;
            slot.since = assertion.since;
            slot.used = 1;
            return;
        }
        throw std::runtime_error("no room for more power assertions");
    });
}

void SimulatedMac::releaseAssertions(int pid) {
    owned_->locked([pid](World& world) {
        for (AssertionRecord& slot : world.state().assertions) {
            slot.used = slot.pid == pid ? 0 : slot.used;
        }
    });
}

void SimulatedMac::setPowerSetting(std::string_view source, std::string_view name,
                                   std::string_view value) {
    owned_->locked([&](World& world) { PowerSettings::set(world, source, name, value); });
}

void SimulatedMac::removePowerSetting(std::string_view source, std::string_view name) {
    owned_->locked([&](World& world) { PowerSettings::remove(world, source, name); });
}

std::optional<std::string> SimulatedMac::powerSetting(std::string_view source,
                                                      std::string_view name) {
    return owned_->locked([&](World& world) -> std::optional<std::string> {
        const PowerSettingRecord* setting = PowerSettings::find(world, source, name);
        return setting != nullptr ? std::optional<std::string>(setting->value) : std::nullopt;
    });
}

std::vector<PowerSettingValue> SimulatedMac::powerSettings() {
    return owned_->locked([](World& world) {
        std::vector<PowerSettingValue> values;
        for (const PowerSettingRecord* setting : PowerSettings::all(world)) {
            values.push_back({setting->source, setting->name, setting->value});
        }
        return values;
    });
}

std::vector<std::string> SimulatedMac::journal() {
    return owned_->locked([](World& world) { return world.journal().lines(); });
}

std::string SimulatedMac::writes() {
    std::string all;
    for (const std::string& line : journal()) {
        const std::string write = writeIn(line);
        all += write.empty() ? "" : (all.empty() ? "" : " ") + write;
    }
    return all;
}

void SimulatedMac::clearJournal() {
    owned_->locked([](World& world) { world.journal().clear(); });
}

CallCounts SimulatedMac::calls() {
    return owned_->locked([](World& world) {
        const auto& calls = world.state().calls;
        CallCounts counts;
        counts.reads = calls[5];
        counts.writes = calls[6];
        counts.names = calls[8];
        counts.keyInfos = calls[9];
        for (const std::uint64_t count : calls) {
            counts.other += count;
        }
        counts.other -= counts.reads + counts.writes + counts.names + counts.keyInfos;
        return counts;
    });
}

void SimulatedMac::clearCalls() {
    owned_->locked([](World& world) {
        std::fill(std::begin(world.state().calls), std::end(world.state().calls), 0);
    });
}

PortCounts SimulatedMac::ports() {
    return owned_->ports().counts();
}

SimulatedMac builtInMac(std::string_view name) {
    const BuiltInModel& model = builtInModelNamed(name);
    return macInMemory(model.plan, keysOf(model), model.startLoad);
}

SimulatedMac macFromKeyDump(std::string_view csv) {
    const auto keys = parseKeyDump(csv);
    return macInMemory(planFromKeys(keys), keys);
}

SimulatedMac createMachineDirectory(const std::string& directory, std::string_view modelName) {
    const BuiltInModel& model = builtInModelNamed(modelName);
    return makeMac(MachineDirectory::create(directory, model.plan, keysOf(model), model.startLoad));
}

SimulatedMac createMachineDirectoryFromKeyDump(const std::string& directory, std::string_view csv) {
    const auto keys = parseKeyDump(csv);
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
