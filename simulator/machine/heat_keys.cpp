#include "simulator/machine/heat_keys.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string_view>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"

namespace simulator::HeatKeys {
namespace {

// No live sensor follows its node less than this.
constexpr double kLeastGain = 0.1;
// With its node at 100 °C, where processors protect themselves, no sensor shows more than 112 °C:
// the highest that was seen on a real machine.
constexpr double kHottestNode = 100;
constexpr double kHottestSensor = 112;
constexpr double kColdestLive = 12;   // °C: below it a temperature key is a constant or an offset
constexpr double kHottestLive = 110;  // °C at rest
constexpr double kGatedCluster = 40;  // Apple Silicon's substitute for a core that sleeps
constexpr double kVoltsOfCoreRail = 12;
constexpr double kAnyDie = 45;

bool oneOf(char character, std::string_view set) {
    return set.find(character) != std::string_view::npos;
}

bool isNamed(std::uint32_t code, std::string_view names) {
    return names.find(unpacked(code)) != std::string_view::npos;
}

bool isFloat(std::uint32_t type) {
    return type == packed("flt ");
}

// Set points, trends, errors, coefficients and values relative to a limit.
bool isConstantTemperature(World& world, const KeyRecord& key) {
    const char second = characterAt(key.code, 1);
    const char third = characterAt(key.code, 2);
    const char fourth = characterAt(key.code, 3);
    const bool t2 = world.state().controller == ControllerKind::kT2;
    if (isNamed(key.code, "TCTD TGDT TCPG TCAG TCBG THTG TCXR TCXr TTF0 TMBS TFPR TC0L TR0Z")) {
        return true;
    }
    if (world.state().appleSilicon != 0) {
        return oneOf(second, "fz") || (second == 'a' && isDigit(third)) ||
               isNamed(key.code, "TVMD TVMr TVM2 TTPD TVmD TVXs");
    }
    if (oneOf(second, "CGJNH") && isDigit(third)) {
        return oneOf(fourth, "GJT") || (second == 'H' && oneOf(fourth, t2 ? "RO" : "FRO"));
    }
    return (second == 's' && third >= 'A' && third <= 'Z') || fourth == 'o';
}

HeatNode intelNode(char second, char third, char fourth) {
    switch (second) {
        case 'C':
            return fourth == 'P' || fourth == 'p' ? HeatNode::kSink
                   : third == 'H'                 ? HeatNode::kEnclosure
                                                  : HeatNode::kDie;
        case 'G':
            return HeatNode::kGraphics;
        case 'H':
            return HeatNode::kStorage;
        case 'B':
            return HeatNode::kBattery;
        case 'A':
            return HeatNode::kAmbient;
        case 'a':
        case 's':
        case 'W':
        case 'L':
        case 'S':
        case 'T':
        case 'K':
            return HeatNode::kEnclosure;
        default:
            return HeatNode::kSink;
    }
}

HeatNode appleSiliconNode(std::uint32_t type, char second, char third, char fourth) {
    if (type == packed("ioft")) {
        return second == 'G' ? HeatNode::kBattery : HeatNode::kSink;
    }
    switch (second) {
        case 'p':
        case 'e':
        case 'd':
        case 'h':
        case 'm':
            return HeatNode::kDie;
        case 'C':
            return third == 'H' ? HeatNode::kEnclosure : HeatNode::kDie;
        case 'g':
            return HeatNode::kGraphics;
        case 's':
            return fourth == 'P' ? HeatNode::kEnclosure : HeatNode::kDie;
        case 'B':
            return HeatNode::kBattery;
        case 'H':
            return HeatNode::kStorage;
        case 'W':
        case 'a':
        case 'D':
        case 'A':
            return HeatNode::kEnclosure;
        case 'V':
            return third == 'D' ? HeatNode::kDie : HeatNode::kSink;
        default:
            return HeatNode::kSink;
    }
}

HeatNode nodeOf(World& world, const KeyRecord& key) {
    const char second = characterAt(key.code, 1);
    const char third = characterAt(key.code, 2);
    const char fourth = characterAt(key.code, 3);
    return world.state().appleSilicon != 0 ? appleSiliconNode(key.type, second, third, fourth)
                                           : intelNode(second, third, fourth);
}

bool isFixedPoint(std::uint32_t type) {
    return characterAt(type, 1) == 'p' && oneOf(characterAt(type, 0), "fs");
}

std::optional<double> liveTemperature(World& world, const KeyRecord& key) {
    if (characterAt(key.code, 0) != 'T' || key.readResult != 0 ||
        (!isFloat(key.type) && !isFixedPoint(key.type) && key.type != packed("ioft")) ||
        isConstantTemperature(world, key)) {
        return std::nullopt;
    }
    const auto value = KeyTable::decode(key, key.bytes);
    const bool gated = world.state().appleSilicon != 0 && value == kGatedCluster;
    if (!value || !(*value > kColdestLive) || !(*value < kHottestLive) || gated) {
        return std::nullopt;
    }
    return value;
}

void follow(KeyRecord& key, HeatNode node, double idle, double gain) {
    key.role = KeyRole::kHeat;
    key.node = node;
    key.idle = static_cast<float>(idle);
    key.gain = static_cast<float>(gain);
}

void connectTemperature(World& world, KeyRecord& key) {
    const auto value = liveTemperature(world, key);
    if (!value) {
        return;
    }
    const HeatState& heat = world.state().heat;
    const HeatNode node = nodeOf(world, key);
    const double rise = heat.rest[static_cast<std::size_t>(node)] - heat.restAmbient;
    const double gain = node == HeatNode::kAmbient ? 1
                        : rise < 1                 ? kLeastGain
                                                   : (*value - heat.restAmbient) / rise;
    const double room = (kHottestSensor - *value) /
                        std::max(kHottestNode - heat.rest[static_cast<std::size_t>(node)], 1.0);
    follow(key, node, *value, std::clamp(gain, kLeastGain, std::max(room, kLeastGain)));
}

struct PowerRule {
    std::string_view key;
    HeatNode node;
    double gain;  // watts, or amperes, per watt of the node
};

// The keys whose meaning is known; other power and current keys keep the value of the dump.
constexpr std::array kPowerRules = {
    PowerRule{"PSTR", HeatNode::kTotalPower, 1},
    PowerRule{"PHPC", HeatNode::kTotalPower, 1},
    PowerRule{"PHPS", HeatNode::kTotalPower, 0.9},
    PowerRule{"PSVR", HeatNode::kTotalPower, 0.95},
    PowerRule{"PPSC", HeatNode::kTotalPower, 0.12},
    PowerRule{"PMVC", HeatNode::kTotalPower, 0.2},
    PowerRule{"PMVR", HeatNode::kProcessorPower, 0.9},
    PowerRule{"PC0R", HeatNode::kProcessorPower, 1},
    PowerRule{"PC0C", HeatNode::kProcessorPower, 0.8},
    PowerRule{"PCPC", HeatNode::kProcessorPower, 0.8},
    PowerRule{"PCPT", HeatNode::kProcessorPower, 1},
    PowerRule{"PCTR", HeatNode::kProcessorPower, 1},
    PowerRule{"PC02", HeatNode::kProcessorPower, 0.25},
    PowerRule{"PC03", HeatNode::kProcessorPower, 0.2},
    PowerRule{"PC42", HeatNode::kProcessorPower, 0.3},
    PowerRule{"PC43", HeatNode::kProcessorPower, 0.25},
    PowerRule{"PZ0G", HeatNode::kProcessorPower, 1},
    PowerRule{"PG0R", HeatNode::kGraphicsPower, 1},
    PowerRule{"PGTR", HeatNode::kGraphicsPower, 1},
    PowerRule{"PCPG", HeatNode::kGraphicsPower, 0.5},
    PowerRule{"IC0R", HeatNode::kProcessorPower, 1 / kVoltsOfCoreRail},
    PowerRule{"IC0C", HeatNode::kProcessorPower, 0.8},
    PowerRule{"IG0R", HeatNode::kGraphicsPower, 1 / kVoltsOfCoreRail},
    PowerRule{"IDTR", HeatNode::kTotalPower, 1 / kVoltsOfCoreRail},
    PowerRule{"ID2R", HeatNode::kTotalPower, 1 / kVoltsOfCoreRail},
};

void connectPower(KeyRecord& key) {
    const auto rule =
        std::find_if(kPowerRules.begin(), kPowerRules.end(),
                     [&key](const PowerRule& known) { return packed(known.key) == key.code; });
    const auto value = KeyTable::decode(key, key.bytes);
    if (rule != kPowerRules.end() && value && key.readResult == 0) {
        follow(key, rule->node, *value, rule->gain);
    }
}

}  // namespace

void connect(World& world) {
    for (std::uint32_t i = 0; i < world.state().keyCount; ++i) {
        KeyRecord& key = world.keys()[i];
        if (key.role == KeyRole::kStored) {
            connectTemperature(world, key);
            connectPower(key);
        }
    }
}

double dieTemperature(World& world) {
    // Means over the die first: single cores are gated or parked.
    for (const std::string_view name :
         {"TCMb", "TC0F", "TCXC", "TCXc", "TC0C", "TC0c", "TC1C", "TC0P"}) {
        const KeyRecord* key = KeyTable::find(world, packed(name));
        const auto value = key != nullptr ? liveTemperature(world, *key) : std::nullopt;
        if (value) {
            return *value;
        }
    }
    return kAnyDie;
}

}  // namespace simulator::HeatKeys
