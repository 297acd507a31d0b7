#include "core/model/snapshot.h"

#include <gtest/gtest.h>

#include <cmath>
#include <new>
#include <stdexcept>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

Snapshot withLimits(std::optional<int> speed, std::optional<int> scheduler,
                    std::optional<int> available, int total = 8) {
    Snapshot snapshot;
    snapshot.speedLimit = speed;
    snapshot.schedulerLimit = scheduler;
    snapshot.availableCPUs = available;
    snapshot.totalCPUs = total;
    return snapshot;
}

TEST(SnapshotTest, LimitsAreJudgedByWhatIsKnown) {
    const struct {
        std::optional<int> speed, scheduler, available;
        bool limited;
        const char* title;
    } cases[] = {
        {100, 100, 8, false, "未检测到系统限速"}, {99, 100, 8, true, "系统正在限制性能"},
        {100, 99, 8, true, "系统正在限制性能"},   {100, 100, 7, true, "系统正在限制性能"},
        {120, 100, 9, false, "未检测到系统限速"}, {{}, 100, 8, false, "限速信息不完整"},
        {100, {}, 8, false, "限速信息不完整"},    {100, 100, {}, false, "限速信息不完整"},
        {{}, {}, 7, true, "系统正在限制性能"},    {{}, {}, {}, false, "限速信息不完整"},
    };
    for (const auto& c : cases) {
        const Snapshot snapshot = withLimits(c.speed, c.scheduler, c.available);
        EXPECT_EQ(snapshot.limited(), c.limited);
        EXPECT_EQ(snapshot.limitTitle(), c.title);
    }
}

TEST(SnapshotTest, AssessmentFollowsLimitsThenHeat) {
    const std::string_view heat =
        "系统性能上限下降，同时存在热压力信号；温控可能参与了限制。无法仅凭这些指标确定具体进程或硬"
        "件"
        "原因。";
    const std::string_view noHeat =
        "系统报告了性能限制，但没有足够的热压力证据。供电、传感器或其他平台策略仍需排查，不能据此认"
        "定"
        "为过热或挖矿。";
    const std::string_view unlimited =
        "目前没有检测到系统上限下降。睿频禁用状态单独显示；100% 上限不代表睿频一定开启。";
    const std::string_view incomplete = "系统未提供完整限速数据，缺失值不能当作正常。";

    Snapshot limited = withLimits(50, {}, {});
    for (const int state : {-1, 0, 1, 2, 3, 4}) {
        limited.thermalState = state;
        EXPECT_EQ(limited.assessment(), state == 2 || state == 3 ? heat : noHeat) << state;
    }
    limited.thermalState = 0;
    for (const int warning : {0, 4, 5, 6, 10, 11, 99, 100, 110, 111}) {
        limited.thermalWarning = warning;
        const bool counts = warning == 5 || warning == 10 || warning == 100 || warning == 110;
        EXPECT_EQ(limited.assessment(), counts ? heat : noHeat) << warning;
    }
    Snapshot free = withLimits(100, 100, 8);
    free.thermalState = 3;
    EXPECT_EQ(free.assessment(), unlimited);
    free.availableCPUs.reset();
    EXPECT_EQ(free.assessment(), incomplete);
}

TEST(SnapshotTest, TitlesAreToTheCharacter) {
    const char* const thermal[] = {"未知", "正常", "升温", "较高", "严重", "未知"};
    for (int state = -1; state <= 4; ++state) {
        Snapshot snapshot;
        snapshot.thermalState = state;
        EXPECT_EQ(snapshot.thermalTitle(), thermal[state + 1]);
    }
    EXPECT_EQ(title(TurboState::disabledDriverLoaded), "禁用驱动已加载");
    EXPECT_EQ(title(TurboState::driverNotLoaded), "禁用驱动未加载");
    EXPECT_EQ(title(TurboState::unknown), "状态无法读取");
    EXPECT_EQ(title(TurboState::unsupported), "不支持此处理器");
    EXPECT_EQ(title(MemoryPressure::normal), "正常");
    EXPECT_EQ(title(MemoryPressure::warning), "偏高");
    EXPECT_EQ(title(MemoryPressure::critical), "严重");
    EXPECT_EQ(unit(HardwareSensorKind::fan), "RPM");
    EXPECT_EQ(unit(HardwareSensorKind::temperature), "°C");
}

TEST(SnapshotTest, CategoriesFollowTheKey) {
    const struct {
        const char* key;
        SensorCategory category;
    } cases[] = {
        {"TC0P", SensorCategory::cpu},     {"TG0D", SensorCategory::gpu},
        {"TH0A", SensorCategory::storage}, {"TB0T", SensorCategory::battery},
        {"Ts0P", SensorCategory::other},   {"Tc0P", SensorCategory::other},
        {"T", SensorCategory::other},      {"", SensorCategory::other},
        {"TC", SensorCategory::cpu},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sensorCategory(c.key), c.category) << c.key;
    }
    EXPECT_EQ(rawValue(SensorCategory::storage), "存储");
    EXPECT_EQ(fromRawValue<MemoryPressure>(4), MemoryPressure::critical);
    EXPECT_EQ(fromRawValue<MemoryPressure>(3), std::nullopt);
    EXPECT_EQ(fromRawValue<MemoryPressure>(0), std::nullopt);
}

TEST(SnapshotTest, HottestReadingOfACategory) {
    Snapshot snapshot;
    snapshot.sensors = {{"TG0D", "显卡", 90}, {"Ts0P", "掌托", 99}};
    EXPECT_EQ(snapshot.cpuTemperature(), std::nullopt);
    EXPECT_EQ(snapshot.temperature(SensorCategory::gpu), 90);
    snapshot.sensors.push_back({"TC0P", "", std::nan("")});
    EXPECT_EQ(snapshot.cpuTemperature(), std::nullopt);
    snapshot.sensors.push_back({"TC1C", "", -3});
    EXPECT_EQ(snapshot.cpuTemperature(), -3);
    snapshot.sensors.push_back({"TC2C", "", 61.5});
    snapshot.sensors.push_back({"TC3C", "", 40});
    EXPECT_EQ(snapshot.cpuTemperature(), 61.5);
}

TEST(SnapshotTest, UsageIsRightAcrossAWrap) {
    const CPUCounters start{.user = 100, .system = 50, .idle = 1000, .nice = 0};
    EXPECT_EQ(start.usage(start), 0);
    EXPECT_EQ((CPUCounters{110, 60, 1070, 10}.usage(start)), 30);
    const CPUCounters nearEnd{0xFFFFFFF0U, 0, 0xFFFFFFFFU, 0};
    EXPECT_EQ((CPUCounters{0x10, 0, 0x1F, 0}.usage(nearEnd)), 50);
    const CPUCounters zero;
    EXPECT_EQ((CPUCounters{0xFFFFFFFFU, 0xFFFFFFFFU, 0, 0xFFFFFFFFU}.usage(zero)), 100);
}

TEST(ScopeErrorTest, ShowsItsTextAlone) {
    const ScopeError ours("风扇 1 没有可识别的模式接口");
    EXPECT_EQ(describe(ours), "风扇 1 没有可识别的模式接口");
    EXPECT_STREQ(ours.what(), "风扇 1 没有可识别的模式接口");
    EXPECT_EQ(describe(std::runtime_error("disk")), "内部错误，操作未完成");
    EXPECT_EQ(describe(std::bad_alloc()), "内存不足，操作未完成");
    EXPECT_EQ(joinFailures({}), "");
    EXPECT_EQ(joinFailures({"甲"}), "甲");
    EXPECT_EQ(joinFailures({"甲", "乙", "丙"}), "甲；乙；丙");
}

}  // namespace
}  // namespace ferovane
