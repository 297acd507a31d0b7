// The tables of the built-in machines, and that load heats what they list.
#include <gtest/gtest.h>

#include <string>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/model.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace simulator;

TEST(ModelTest, EveryMachineShowsItsDumpToTheByteAndStaysPlausibleUnderLoad) {
    for (const Model& model : builtInModelTable()) {
        const std::string name(model.name);
        SimulatedMac mac = builtInMac(name);
        int live = 0;
        const auto keys = keysOf(model);
        for (const KeyDefinition& key : keys) {
            const std::string code = unpacked(key.code);
            // Adapter and battery keys show the present source; "#KEY" what can be listed.
            const bool ofItsOwn = code == "#KEY" || code == "B0AC" || code == "PDTR" ||
                                  code == "ID0R" || code == "VD0R";
            if (key.readResult == 0 && !ofItsOwn && model.startLoad < 0) {
                std::vector<std::uint8_t> dumped = key.bytes;
                dumped.resize(std::min<std::size_t>(dumped.size(), 32));
                EXPECT_EQ(mac.bytes(code), dumped) << name << code;
            }
        }
        mac.set(Property::kLoad, 100);
        mac.set(Property::kGraphicsLoad, 100);
        SimulatedMac cool = builtInMac(name);
        cool.set(Property::kLoad, 0);
        mac.settle();
        cool.settle();
        EXPECT_LT(mac.dieTemperature(), 106) << "it throttles";
        for (const KeyDefinition& key : keys) {
            const std::string code = unpacked(key.code);
            const auto now = mac.number(code);
            if (code.front() == 'T' && now && now != cool.number(code)) {
                EXPECT_GT(*now, *cool.number(code)) << name << code;
                EXPECT_LT(*now, 115) << name << code;
                ++live;
            }
        }
        EXPECT_GT(live, keys.empty() ? -1 : 20) << name;
    }
}

}  // namespace
