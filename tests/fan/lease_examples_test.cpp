// A few leases and hand-overs to learn from; every other case is fan_rules_test's.
#include <gtest/gtest.h>

#include "core/fan/mode_history.h"
#include "core/fan/profile.h"
#include "core/model/raw_enum.h"
#include "tests/support/fan_world.h"

namespace ferovane {
namespace {

using testing::FanWorld;
using testing::Fault;

TEST(CurveLeaseTest, RisesAtOnceFallsSlowlyAndSkipsSmallChanges) {
    FanWorld world(1);
    world.fan[0].maximum = 3000;  // 1 % is 10 rpm, and 1 °C is 2 %
    world.befall = [&](const std::string& call) {
        world.setCelsius(call == "sample" && world.clock > 1001 ? 50 : 70);
        return Fault::none;
    };
    world.follow({{{30, 0}, {80, 100}}, CurveSensor::cpu}, 12);
    EXPECT_EQ(world.writes,
              "F0Md=1 F0Tg=2800 F0Tg=2760 F0Tg=2720 F0Tg=2680 F0Tg=2640 F0Tg=2600 F0Tg=2560 "
              "F0Tg=2520 F0Tg=2480 F0Tg=2440 F0Tg=2400 F0Md=0");
}

TEST(ModeHistoryTest, IsCutWhereALineWouldJoinWhatDoesNotBelongTogether) {
    const struct {
        double date;
        std::optional<std::string> mode, session;
        std::optional<double> celsius = 50;
        const char* records;  // what is then kept of the last half hour, as segment@seconds in it
    } steps[] = {
        {0, "A", {}, 50, "1@0 "},
        {15, "A", {}, 50, "1@0 1@15 "},
        {30.25, "A", {}, 50, "1@0 1@15 2@0 "},
        {40, "B", {}, 50, "1@0 1@15 2@0 3@0 "},
        {50, "B", "s", 50, "1@0 1@15 2@0 3@0 4@0 "},
        {60, "B", "s", testing::kNaN, "1@0 1@15 2@0 3@0 4@0 "},
        {65, "B", "s", 50, "1@0 1@15 2@0 3@0 4@0 5@0 "},
        {70, {}, "s", 50, "1@0 1@15 2@0 3@0 4@0 5@0 "},
        {1815, "B", "s", 50, "1@15 2@0 3@0 4@0 5@0 6@0 "},
        {1815, "B", "s", 50, "1@15 2@0 3@0 4@0 5@0 6@0 7@0 "},
        {1800, "B", "s", 50, "1@15 2@0 3@0 4@0 5@0 6@0 7@0 8@0 "},
        {3610, "B", "s", {}, "6@0 7@0 "},
    };
    ModeHistory history;
    for (const auto& [date, mode, session, celsius, expected] : steps) {
        history.append(Date{date}, mode, session, celsius, 0.5);
        std::string told;
        for (const ModeRecord& it : history.records()) {
            told += std::to_string(it.segment) + "@" + std::to_string(int(it.elapsed)) + " ";
        }
        EXPECT_EQ(told, expected) << date;
    }
    EXPECT_EQ(history.records()[0], (ModeRecord{Date{1815}, "B", 50, 0.5, 6, 0, {}}));
}

TEST(ProfileTest, EveryModeHasItsWordsItsCurveAndItsTurboChoice) {
    using Points = std::vector<CurvePoint>;
    const Points quiet{{40, 0}, {55, 8}, {70, 25}, {80, 60}, {90, 100}};
    const Points balanced{{40, 10}, {55, 25}, {70, 55}, {80, 80}, {90, 100}};
    const Points performance{{40, 30}, {55, 50}, {65, 75}, {75, 95}, {85, 100}};
    const struct {
        const char *command, *title, *explanation;
        const Points& points;
        bool disablesTurbo;
    } expected[] = {
        {"automatic", "系统自动", "系统控制风扇 · 保留睿频设置", balanced, false},
        {"eco", "节能", "限制性能峰值 · 均衡散热", balanced, true},
        {"performance", "性能", "开启睿频 · 积极散热", performance, false},
        {"balanced", "均衡", "开启睿频 · 平衡温度与噪声", balanced, false},
        {"quiet", "静音", "关闭睿频 · 温和散热", quiet, true},
        {"custom", "自定义", "按你的曲线运行 · 保留睿频设置", balanced, false},
    };
    ASSERT_EQ(kAllProfiles.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const Profile profile = kAllProfiles[i];
        EXPECT_EQ(commandWord(profile), expected[i].command);
        EXPECT_EQ(rawValue(profile), expected[i].title);
        EXPECT_EQ(explanation(profile), expected[i].explanation);
        EXPECT_EQ(curve(profile).points, expected[i].points) << expected[i].command;
        EXPECT_EQ(curve(profile).sensor, CurveSensor::hottest);
        EXPECT_EQ(disablesTurbo(profile), expected[i].disablesTurbo) << expected[i].command;
        EXPECT_EQ(profileNamed(expected[i].command), profile);
        EXPECT_EQ(profileNamed(expected[i].title), std::nullopt);
    }
}

}  // namespace
}  // namespace ferovane
