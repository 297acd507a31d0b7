// Keys, fans and heat of a SimulatedMac.
#include <algorithm>
#include <stdexcept>
#include <string>

#include "simulator/machine/fans.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "simulator/machine/value_codec.h"

namespace simulator {
namespace {

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

double temperature(World& world, HeatNode node) {
    return world.state().heat.temperature[static_cast<std::size_t>(node)];
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

}  // namespace

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

}  // namespace simulator
