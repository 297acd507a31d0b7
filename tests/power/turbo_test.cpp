// Switching turbo: what is run, and what counts as confirmed.
#include "core/power/turbo.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using State = std::optional<std::int64_t>;
constexpr State kLoaded = 1, kNotLoaded = 0, kNoAnswer = std::nullopt;

const std::string kPro =
    "/Applications/Turbo Boost Switcher Pro.app/Contents/Resources/DisableTurboBoost.64bits.kext";
const std::string kPlain =
    "/Applications/Turbo Boost Switcher.app/Contents/Resources/DisableTurboBoost.64bits.kext";
const std::string kLoadByName = "/usr/bin/kmutil load -b com.vorandel.DisableTurboBoost in 90";
const std::string kUnload = "/usr/bin/kmutil unload -b com.vorandel.DisableTurboBoost in 90";
const std::string kLoadPro = "/usr/bin/kmutil load -p " + kPro + " in 90";
const std::string kLoadPlain = "/usr/bin/kmutil load -p " + kPlain + " in 90";
const std::string kUnconfirmed = "睿频操作未确认。需要已安装且获得系统批准的驱动。\n";

struct Case {
    const char* what;
    bool disable;
    std::deque<State> states;           // as the driver is asked for
    std::deque<CommandResult> results;  // of the tool
    std::set<std::string> bundles;      // that hold the driver
    std::vector<std::string> commands;
    std::string failure;
};

const std::vector<Case> kCases{
    {"already off", true, {kLoaded}, {}, {kPro}, {}, ""},
    {"already on", false, {kNotLoaded}, {}, {kPro}, {}, ""},
    {"off by name", true, {kNotLoaded, kLoaded}, {{0, ""}}, {kPro}, {kLoadByName}, ""},
    {"on", false, {kLoaded, kNotLoaded}, {{0, ""}}, {}, {kUnload}, ""},
    {"no answer is no short cut, off",
     true,
     {kNoAnswer, kLoaded},
     {{0, ""}},
     {},
     {kLoadByName},
     ""},
    {"no answer is no short cut, on", false, {kNoAnswer, kNotLoaded}, {{0, ""}}, {}, {kUnload}, ""},
    {"still no answer",
     true,
     {kNoAnswer, kNoAnswer},
     {{0, "loaded\n"}},
     {kPro},
     {kLoadByName},
     kUnconfirmed + "loaded\n"},
    {"a tool that did nothing",
     true,
     {kNotLoaded, kNotLoaded},
     {{0, ""}},
     {kPro},
     {kLoadByName},
     kUnconfirmed},
    {"by path, the Pro application first",
     true,
     {kNotLoaded, kLoaded},
     {{1, "by name"}, {0, ""}},
     {kPro, kPlain},
     {kLoadByName, kLoadPro},
     ""},
    {"by path, the other application",
     true,
     {kNotLoaded, kLoaded},
     {{1, "by name"}, {0, ""}},
     {kPlain},
     {kLoadByName, kLoadPlain},
     ""},
    {"by path is tried once",
     true,
     {kNotLoaded},
     {{1, "by name"}, {27, "not approved"}},
     {kPro, kPlain},
     {kLoadByName, kLoadPro},
     kUnconfirmed + "not approved"},
    {"by path without effect",
     true,
     {kNotLoaded, kNotLoaded},
     {{1, "by name"}, {0, "by path"}},
     {kPlain},
     {kLoadByName, kLoadPlain},
     kUnconfirmed + "by path"},
    {"no driver anywhere",
     true,
     {kNotLoaded},
     {{1, "by name"}},
     {},
     {kLoadByName},
     kUnconfirmed + "by name"},
    {"unloading looks at no path",
     false,
     {kLoaded},
     {{1, "in use"}},
     {kPro, kPlain},
     {kUnload},
     kUnconfirmed + "in use"},
    {"unloaded, but still there",
     false,
     {kLoaded, kLoaded},
     {{0, ""}},
     {},
     {kUnload},
     kUnconfirmed},
};

template <class Answer>
Answer next(std::deque<Answer>& answers, const char* what) {
    if (answers.empty()) {
        ADD_FAILURE() << what << ": asked once too often";
        return {};
    }
    auto answer = std::move(answers.front());
    answers.pop_front();
    return answer;
}

TEST(TurboTest, RunsAndConfirmsExactlyWhatIsNeeded) {
    for (auto c : kCases) {
        std::vector<std::string> commands;
        const auto driverState = [&] { return next(c.states, c.what); };
        const auto run = [&](const std::string& path, const std::vector<std::string>& arguments,
                             double timeout) {
            std::string command = path;
            for (const auto& argument : arguments) {
                command += " " + argument;
            }
            commands.push_back(command + " in " + std::to_string(static_cast<int>(timeout)));
            return next(c.results, c.what);
        };
        const auto bundleQualifies = [&](const std::string& path) {
            return c.bundles.count(path) > 0;
        };
        const auto failure = testing::failureOf([&] {
            setTurbo(c.disable, {driverState, run, bundleQualifies});
        });
        EXPECT_EQ(failure, c.failure) << c.what;
        EXPECT_EQ(commands, c.commands) << c.what;
        EXPECT_TRUE(c.states.empty()) << c.what << ": the state was not asked for";
    }
}

TEST(TurboTest, AToolThatHangsIsNotFollowedByAnother) {
    int runs = 0;
    const TurboOperations operations{[] { return kNotLoaded; },
                                     [&](const auto&, const auto&, double) -> CommandResult {
                                         ++runs;
                                         throw ScopeError("命令超时。请刷新状态确认结果。");
                                     },
                                     [](const auto&) { return true; }};
    EXPECT_EQ(testing::failureOf([&] { setTurbo(true, operations); }),
              "命令超时。请刷新状态确认结果。");
    EXPECT_EQ(runs, 1);
}

}  // namespace
}  // namespace ferovane
