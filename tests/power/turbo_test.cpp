// Switching turbo: what is run, and what counts as confirmed.
#include "core/power/turbo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

const std::string kPro =
    "/Applications/Turbo Boost Switcher Pro.app/Contents/Resources/DisableTurboBoost.64bits.kext";
const std::string kPlain =
    "/Applications/Turbo Boost Switcher.app/Contents/Resources/DisableTurboBoost.64bits.kext";
const std::string kByName = "kmutil load -b com.vorandel.DisableTurboBoost\n";
const std::string kUnload = "kmutil unload -b com.vorandel.DisableTurboBoost\n";
const std::string kFromPro = "kmutil load -p " + kPro + "\n";
const std::string kFromPlain = "kmutil load -p " + kPlain + "\n";
const std::string kUnconfirmed = "睿频操作未确认。需要已安装且获得系统批准的驱动。\n";
constexpr bool kOff = true, kOn = false;  // turbo, by disabling it or not

struct Case {
    const char* what;
    bool disable;
    std::string states;                // the driver's, as it is asked for: 0, 1, or ? for no answer
    std::vector<std::string> results;  // the tool's: status, then output; none: it is late
    std::string bundles;               // that hold the driver
    std::string commands;
    std::string failure;
};

const std::vector<Case> kCases{
    {"already off", kOff, "1", {}, kPro, "", ""},
    {"already on", kOn, "0", {}, kPro, "", ""},
    {"off by name", kOff, "01", {"0"}, kPro, kByName, ""},
    {"on", kOn, "10", {"0"}, "", kUnload, ""},
    {"no answer is no short cut, off", kOff, "?1", {"0"}, "", kByName, ""},
    {"still no answer", kOff, "??", {"0a"}, kPro, kByName, kUnconfirmed + "a"},
    {"loaded, but not there", kOff, "00", {"0"}, kPro, kByName, kUnconfirmed},
    {"unloaded, but still there", kOn, "11", {"0"}, "", kUnload, kUnconfirmed},
    {"Pro first", kOff, "01", {"1a", "0"}, kPro + kPlain, kByName + kFromPro, ""},
    {"plain too", kOff, "01", {"1a", "0"}, kPlain, kByName + kFromPlain, ""},
    {"one path", kOff, "0", {"1a", "2b"}, kPro + kPlain, kByName + kFromPro, kUnconfirmed + "b"},
    {"no driver anywhere", kOff, "0", {"1a"}, "", kByName, kUnconfirmed + "a"},
    {"no path for unloading", kOn, "1", {"1a"}, kPro, kUnload, kUnconfirmed + "a"},
    {"no other tool after a late one", kOff, "0", {}, kPro + kPlain, kByName, "late"},
};

TEST(TurboTest, RunsAndConfirmsExactlyWhatIsNeeded) {
    for (auto c : kCases) {
        SCOPED_TRACE(c.what);
        std::string commands;
        std::size_t runs = 0;
        const auto driverState = [&]() -> std::optional<std::int64_t> {
            const char state = c.states.empty() ? '!' : c.states.front();
            EXPECT_NE(state, '!') << "asked once too often";
            c.states.erase(0, 1);
            return state == '?' ? std::nullopt : std::optional<std::int64_t>(state - '0');
        };
        const auto run = [&](const std::string& path, const std::vector<std::string>& arguments,
                             double timeout) -> CommandResult {
            EXPECT_EQ(path, "/usr/bin/kmutil");
            EXPECT_EQ(timeout, 90);
            commands += "kmutil";
            for (const auto& argument : arguments) {
                commands += " " + argument;
            }
            commands += "\n";
            if (runs == c.results.size()) {
                throw ScopeError("late");
            }
            const auto& result = c.results[runs++];
            return {result[0] - '0', result.substr(1)};
        };
        const auto bundleQualifies = [&](const std::string& path) {
            return c.bundles.find(path) != std::string::npos;
        };
        const TurboOperations operations{driverState, run, bundleQualifies};
        EXPECT_EQ(testing::failureOf([&] { setTurbo(c.disable, operations); }), c.failure);
        EXPECT_EQ(commands, c.commands);
        EXPECT_EQ(c.states, "") << "not asked often enough";
    }
}

}  // namespace
}  // namespace ferovane
