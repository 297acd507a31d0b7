#include "core/fan/profile.h"

#include <gtest/gtest.h>

namespace ferovane {
namespace {

TEST(ProfileTest, EveryModeHasItsWordsItsCurveAndItsTurboChoice) {
    const struct {
        Profile profile;
        const char *command, *title, *explanation;
        FanCurve curve;
        bool disablesTurbo;
    } expected[] = {
        {Profile::automatic, "automatic", "系统自动", "系统控制风扇 · 保留睿频设置",
         FanCurve::balanced(), false},
        {Profile::eco, "eco", "节能", "限制性能峰值 · 均衡散热", FanCurve::balanced(), true},
        {Profile::performance, "performance", "性能", "开启睿频 · 积极散热",
         FanCurve::performance(), false},
        {Profile::balanced, "balanced", "均衡", "开启睿频 · 平衡温度与噪声", FanCurve::balanced(),
         false},
        {Profile::quiet, "quiet", "静音", "关闭睿频 · 温和散热", FanCurve::quiet(), true},
        {Profile::custom, "custom", "自定义", "按你的曲线运行 · 保留睿频设置", FanCurve::balanced(),
         false},
    };
    ASSERT_EQ(kAllProfiles.size(), std::size(expected));
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        const auto& e = expected[i];
        EXPECT_EQ(kAllProfiles[i], e.profile);
        EXPECT_EQ(commandWord(e.profile), e.command);
        EXPECT_EQ(rawValue(e.profile), e.title);
        EXPECT_EQ(explanation(e.profile), e.explanation);
        EXPECT_EQ(curve(e.profile), e.curve) << e.command;
        EXPECT_EQ(disablesTurbo(e.profile), e.disablesTurbo) << e.command;
        EXPECT_EQ(profileNamed(e.command), e.profile);
    }
    for (const char* word : {"", "Custom", "静音", "quiet "}) {
        EXPECT_EQ(profileNamed(word), std::nullopt) << word;
    }
}

}  // namespace
}  // namespace ferovane
