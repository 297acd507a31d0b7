#include "core/fan/fan_curve.h"

#include <gtest/gtest.h>

#include <limits>

#include "core/model/json_codec.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::failureOf;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

constexpr const char* kCount = "曲线需要 2 至 8 个控制点";
constexpr const char* kRange = "曲线温度范围为 30–100°C，转速范围为 0–100%";
constexpr const char* kOrder = "温度控制点至少间隔 2°C，转速必须随温度升高而不降低";
constexpr const char* kEnd = "最后一个点必须在 90°C 或更低达到 100% 转速";

TEST(FanCurveTest, ValidationNamesTheFirstBrokenRule) {
    const struct {
        std::vector<CurvePoint> points;
        const char* message;
    } cases[] = {
        {{}, kCount},
        {{{90, 100}}, kCount},
        {{{30, 0}, {90, 100}}, ""},
        {{{30, 0}, {32, 0}, {34, 0}, {36, 0}, {38, 0}, {40, 0}, {42, 0}, {90, 100}}, ""},
        {{{30, 0}, {32, 0}, {34, 0}, {36, 0}, {38, 0}, {40, 0}, {42, 0}, {44, 0}, {90, 100}},
         kCount},
        {{{29.9, 0}, {90, 100}}, kRange},
        {{{30, 0}, {100.1, 100}}, kRange},
        {{{30, -0.1}, {90, 100}}, kRange},
        {{{30, 0}, {90, 100.1}}, kRange},
        {{{kNaN, 0}, {90, 100}}, kRange},
        {{{30, 0}, {90, kNaN}}, kRange},
        {{{30, 0}, {kInfinity, 100}}, kRange},
        {{{88, 100}, {90, 100}}, ""},
        {{{60.3, 0}, {62.3, 100}}, ""},  // 2 apart in decimals, though not in binary
        {{{88.1, 100}, {90, 100}}, kOrder},
        {{{40, 50}, {40, 50}, {90, 100}}, kOrder},
        {{{50, 50}, {40, 60}, {90, 100}}, kOrder},
        {{{40, 50}, {60, 49.9}, {90, 100}}, kOrder},
        // Point by point: the spacing of the second comes before the range of the third.
        {{{40, 50}, {41, 50}, {200, 100}}, kOrder},
        {{{40, 50}, {200, 50}, {41, 100}}, kRange},
        {{{30, 0}, {91, 100}}, kEnd},
        {{{30, 0}, {90, 99}}, kEnd},
    };
    for (const auto& c : cases) {
        const FanCurve curve{c.points, CurveSensor::cpu};
        EXPECT_EQ(failureOf([&] { curve.validate(); }), c.message)
            << ::testing::PrintToString(&c - cases);
    }
    for (const FanCurve& curve :
         {FanCurve::quiet(), FanCurve::balanced(), FanCurve::performance(), FanCurve::manual(0)}) {
        EXPECT_NO_THROW(curve.validate());
    }
}

TEST(FanCurveTest, PercentInterpolatesBetweenPointsAndFailsSafeToFullSpeed) {
    const struct {
        FanCurve curve;
        double celsius, percent;
    } cases[] = {
        {FanCurve::balanced(), 65, 45},          {FanCurve::balanced(), 20, 10},
        {FanCurve::balanced(), 40, 10},          {FanCurve::balanced(), 55, 25},
        {FanCurve::balanced(), 90, 100},         {FanCurve::balanced(), 150, 100},
        {FanCurve::quiet(), 75, 42.5},           {FanCurve::performance(), 80, 97.5},
        {FanCurve::balanced(), kNaN, 100},       {FanCurve::balanced(), kInfinity, 100},
        {FanCurve::balanced(), -kInfinity, 100}, {FanCurve{}, 50, 100},
        {FanCurve::manual(37), 25, 37},          {FanCurve::manual(37), 80, 37},
        {FanCurve::manual(-5), 80, 0},           {FanCurve::manual(-5), 85, 50},
        {FanCurve::manual(-5), 90, 100},         {FanCurve::manual(150), 30, 100},
        {FanCurve::manual(kNaN), 30, 100},       {FanCurve::manual(-kInfinity), 30, 100},
    };
    for (const auto& c : cases) {
        EXPECT_DOUBLE_EQ(c.curve.percent(c.celsius), c.percent)
            << "case " << &c - cases << " at " << c.celsius;
    }
}

// These ends of segments, 0.6 + 99.4 and 10 + 89.9, would come out an ulp too high.
TEST(FanCurveTest, RoundingTakesNoSegmentAboveItsEnd) {
    const FanCurve full{{{67, 0.6}, {73.4, 100}, {80, 100}}, CurveSensor::cpu};
    const FanCurve rising{{{34, 10}, {40, 99.9}, {42, 100}}, CurveSensor::cpu};
    EXPECT_EQ(full.percent(73.4), 100);
    EXPECT_EQ(rising.percent(40), 99.9);
}

TEST(FanCurveTest, SensorTakesWhatIsAvailable) {
    const SensorReading cpu{"TC0P", "", 60}, gpu{"TG0P", "", 70}, storage{"TH0A", "", 99};
    const std::optional<double> none;
    const struct {
        std::vector<SensorReading> sensors;
        std::optional<double> cpu, gpu, hottest;
    } cases[] = {
        {{cpu, gpu, storage}, 60, 70, 70},
        {{cpu, storage}, 60, none, 60},
        {{gpu}, none, 70, 70},
        {{storage}, none, none, none},
    };
    for (const auto& c : cases) {
        Snapshot snapshot;
        snapshot.sensors = c.sensors;
        EXPECT_EQ(temperature(CurveSensor::cpu, snapshot), c.cpu);
        EXPECT_EQ(temperature(CurveSensor::gpu, snapshot), c.gpu);
        EXPECT_EQ(temperature(CurveSensor::hottest, snapshot), c.hottest);
    }
}

TEST(FanCurveTest, TravelsAsJson) {
    const FanCurve curve{{{30, 0}, {90, 100}}, CurveSensor::hottest};
    const std::string json = R"({"points":[{"temperature":30,"percent":0},)"
                             R"({"temperature":90,"percent":100}],"sensor":"CPU / GPU 较高温"})";
    EXPECT_EQ(encodeJson(curve), json);
    EXPECT_EQ(decodeJson<FanCurve>(json), curve);
    EXPECT_NE(failureOf([] { decodeJson<FanCurve>(R"({"points":[],"sensor":"cpu"})"); }), "");
}

}  // namespace
}  // namespace ferovane
