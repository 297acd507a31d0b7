#include "core/model/snapshot.h"

#include <gtest/gtest.h>

#include <cmath>
#include <new>
#include <stdexcept>

#include "core/model/export.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;

// Every mixture of limits and heat, judged as the rules are described.
TEST(SnapshotTest, JudgesLimitsByWhatIsKnown) {
    const std::optional<int> percents[] = {{}, 99, 100, 120}, cpus[] = {{}, 7, 8, 9};
    const std::optional<int> warnings[] = {{}, 0, 4, 5, 6, 10, 11, 99, 100, 110, 111};
    Snapshot s;
    s.totalCPUs = 8;
    for (int i = 0; i < 4 * 4 * 4 * 6 * 11; ++i) {
        s.speedLimit = percents[i % 4];
        s.schedulerLimit = percents[i / 4 % 4];
        s.availableCPUs = cpus[i / 16 % 4];
        s.thermalState = i / 64 % 6 - 1;
        s.thermalWarning = warnings[i / 384];
        const bool limited = s.speedLimit == 99 || s.schedulerLimit == 99 || s.availableCPUs == 7;
        const bool known = s.speedLimit && s.schedulerLimit && s.availableCPUs;
        const int warning = s.thermalWarning.value_or(0);
        const bool heat = s.thermalState == 2 || s.thermalState == 3 || warning == 5 ||
                          warning == 10 || warning == 100 || warning == 110;
        ASSERT_EQ(std::pair(s.limited(), s.limitKnown()), std::pair(limited, known)) << i;
        ASSERT_EQ(s.limitTitle(), limited ? "系统正在限制性能"
                                  : known ? "未检测到系统限速"
                                          : "限速信息不完整");
        ASSERT_EQ(s.assessment(),
                  limited && heat ? "系统性能上限下降，同时存在热压力信号；温控可能参与了限制。"
                                    "无法仅凭这些指标确定具体进程或硬件原因。"
                  : limited ? "系统报告了性能限制，但没有足够的热压力证据。供电、传感器或其他平台"
                              "策略仍需排查，不能据此认定为过热或挖矿。"
                  : known ? "目前没有检测到系统上限下降。睿频禁用状态单独显示；100% "
                            "上限不代表睿频一定开启。"
                          : "系统未提供完整限速数据，缺失值不能当作正常。");
    }
}

TEST(SnapshotTest, TitlesAreToTheCharacter) {
    std::string all;
    Snapshot snapshot;
    for (snapshot.thermalState = -1; snapshot.thermalState <= 4; ++snapshot.thermalState) {
        all.append(snapshot.thermalTitle()).append(" ");
    }
    for (const auto& [state, raw] : RawEnum<TurboState>::cases) {
        all.append(raw).append(title(state)).append(" ");
    }
    for (const auto& [pressure, raw] : RawEnum<MemoryPressure>::cases) {
        all.append(std::to_string(raw)).append(title(pressure)).append(" ");
    }
    for (const auto& [kind, raw] : RawEnum<HardwareSensorKind>::cases) {
        all.append(raw).append(unit(kind)).append(" ");
    }
    for (const char* key : {"TC0P", "TC", "TG0D", "TH0A", "TB0T", "Ts0P", "Tc0P", "T", ""}) {
        all.append(rawValue(sensorCategory(key))).append(" ");
    }
    EXPECT_EQ(all,
              "未知 正常 升温 较高 严重 未知 disabledDriverLoaded禁用驱动已加载 "
              "driverNotLoaded禁用驱动未加载 unknown状态无法读取 unsupported不支持此处理器 "
              "1正常 2偏高 4严重 fanRPM temperature°C powerW voltageV currentA "
              "CPU CPU GPU 存储 电池 其他 其他 其他 其他 ");
    EXPECT_EQ(fromRawValue<MemoryPressure>(3), std::nullopt);
}

TEST(SnapshotTest, UsageIsRightAcrossAWrap) {
    Dice dice(1);
    const auto ticks = [&] { return static_cast<std::uint32_t>(dice.bits() >> 32); };
    for (int i = 0; i < 1000; ++i) {
        const CPUCounters start{ticks(), ticks(), ticks(), ticks()},
            more{ticks(), ticks(), ticks(), ticks()};
        const auto busy = static_cast<double>(std::uint64_t{more.user} + more.system + more.nice);
        const CPUCounters now{start.user + more.user, start.system + more.system,
                              start.idle + more.idle, start.nice + more.nice};
        ASSERT_NEAR(now.usage(start), 100 * busy / (busy + more.idle), 1e-9);
        ASSERT_EQ(now.usage(now), 0);
    }
}

constexpr const char* kHeader =
    "timestamp,cpu_percent,cpu_temperature_c,speed_limit_percent,scheduler_limit_percent,"
    "available_cpus,total_cpus,thermal_state,thermal_warning,turbo_driver,ac_power,low_power,"
    "fan0_rpm,fan1_rpm";

TEST(ExportTest, WritesWhatIsKnownAndLeavesTheRestEmpty) {
    Snapshot first;
    first.date = parseIso8601("2024-05-01T12:30:00Z");
    first.totalCPUs = 8;

    Snapshot full;
    full.date = parseIso8601("1969-12-31T23:59:59Z") + 0.5;
    full.cpuUsage = 12.345;
    full.sensors = {{"TC0P", "甲, 乙", 61.005}, {"TG0D", "", 99}};
    full.fans = {
        {0, 1834.5, {}, {}, {}, true}, {1, {}, {}, {}, {}, true}, {2, 3.0, {}, {}, {}, true}};
    full.speedLimit = 100;
    full.schedulerLimit = 99;
    full.availableCPUs = 4;
    full.totalCPUs = 8;
    full.thermalState = 2;
    full.thermalWarning = -5;
    full.turbo = TurboState::disabledDriverLoaded;
    full.acPower = false;
    full.lowPower = true;

    EXPECT_EQ(Export::csv({}), kHeader);
    Snapshot odd = first;  // what is no number is left out
    odd.cpuUsage = std::nan("");
    odd.sensors = {{"TC0P", "", std::numeric_limits<double>::infinity()}};
    odd.fans = {{0, -std::numeric_limits<double>::infinity(), {}, {}, {}, true}};
    EXPECT_EQ(Export::csv(std::vector{odd}), Export::csv(std::vector{first}));
    EXPECT_EQ(Export::csv(std::vector{first, full}),
              std::string(kHeader) +
                  "\n2024-05-01T12:30:00Z,,,,,,8,0,,unknown,,0,,"
                  "\n1969-12-31T23:59:59Z,12.35,61.01,100,99,4,8,2,-5,disabledDriverLoaded,0,1,"
                  "1834.50,");
}

TEST(ScopeErrorTest, ShowsItsTextAlone) {
    const ScopeError ours("风扇 1 没有可识别的模式接口");
    EXPECT_EQ(describe(ours), "风扇 1 没有可识别的模式接口");
    EXPECT_STREQ(ours.what(), "风扇 1 没有可识别的模式接口");
    EXPECT_EQ(describe(std::runtime_error("disk")), "内部错误，操作未完成");
    EXPECT_EQ(describe(std::bad_alloc()), "内存不足，操作未完成");
    EXPECT_EQ(joinFailures({}), "");
    EXPECT_EQ(joinFailures({"甲", "乙", "丙"}), "甲；乙；丙");
}

}  // namespace
}  // namespace ferovane
