#include "core/model/snapshot.h"

#include <algorithm>
#include <cmath>

namespace ferovane {
namespace {

constexpr int kUnlimitedPercent = 100;

// Levels of the system's thermal warning that stand for a slowed or endangered machine.
constexpr std::array kPressureWarnings{5, 10, 100, 110};

bool thermalPressure(const Snapshot& snapshot) {
    const bool state = snapshot.thermalState == 2 || snapshot.thermalState == 3;
    return state || (snapshot.thermalWarning &&
                     std::ranges::find(kPressureWarnings, *snapshot.thermalWarning) !=
                         kPressureWarnings.end());
}

}  // namespace

SensorCategory sensorCategory(std::string_view key) {
    const std::string_view prefix = key.substr(0, 2);
    if (prefix == "TC") {
        return SensorCategory::cpu;
    }
    if (prefix == "TG") {
        return SensorCategory::gpu;
    }
    if (prefix == "TH") {
        return SensorCategory::storage;
    }
    return prefix == "TB" ? SensorCategory::battery : SensorCategory::other;
}

std::string_view title(TurboState state) {
    switch (state) {
        case TurboState::disabledDriverLoaded:
            return "禁用驱动已加载";
        case TurboState::driverNotLoaded:
            return "禁用驱动未加载";
        case TurboState::unknown:
            return "状态无法读取";
        case TurboState::unsupported:
            return "不支持此处理器";
    }
    return {};
}

std::string_view title(MemoryPressure pressure) {
    switch (pressure) {
        case MemoryPressure::normal:
            return "正常";
        case MemoryPressure::warning:
            return "偏高";
        case MemoryPressure::critical:
            return "严重";
    }
    return {};
}

double CPUCounters::usage(const CPUCounters& previous) const {
    // Unsigned differences are right across a counter's wrap; their sum needs more than 32 bits.
    const std::uint32_t idleTicks = idle - previous.idle;
    const std::uint64_t busyTicks =
        std::uint64_t{user - previous.user} + (system - previous.system) + (nice - previous.nice);
    const std::uint64_t total = busyTicks + idleTicks;
    return total == 0 ? 0 : static_cast<double>(busyTicks) * 100 / static_cast<double>(total);
}

std::optional<double> Snapshot::temperature(SensorCategory category) const {
    std::optional<double> hottest;
    for (const SensorReading& sensor : sensors) {
        if (sensor.category() == category && !std::isnan(sensor.celsius) &&
            (!hottest || sensor.celsius > *hottest)) {
            hottest = sensor.celsius;
        }
    }
    return hottest;
}

bool Snapshot::limited() const {
    return (speedLimit && *speedLimit < kUnlimitedPercent) ||
           (schedulerLimit && *schedulerLimit < kUnlimitedPercent) ||
           (availableCPUs && *availableCPUs < totalCPUs);
}

bool Snapshot::limitKnown() const {
    return speedLimit && schedulerLimit && availableCPUs;
}

std::string_view Snapshot::limitTitle() const {
    if (limited()) {
        return "系统正在限制性能";
    }
    return limitKnown() ? "未检测到系统限速" : "限速信息不完整";
}

std::string_view Snapshot::thermalTitle() const {
    constexpr std::array<std::string_view, 4> titles{"正常", "升温", "较高", "严重"};
    return thermalState >= 0 && thermalState < 4 ? titles[static_cast<std::size_t>(thermalState)]
                                                 : "未知";
}

std::string_view Snapshot::assessment() const {
    if (limited()) {
        return thermalPressure(*this) ? "系统性能上限下降，同时存在热压力信号；温控可能参与了限制。"
                                        "无法仅凭这些指标确定具"
                                        "体进程或硬件原因。"
                                      : "系统报告了性能限制，但没有足够的热压力证据。供电、传感器或"
                                        "其他平台策略仍需排查，"
                                        "不能据此认定为过热或挖矿。";
    }
    return limitKnown()
               ? "目前没有检测到系统上限下降。睿频禁用状态单独显示；100% 上限不代表睿频一定开启。"
               : "系统未提供完整限速数据，缺失值不能当作正常。";
}

}  // namespace ferovane
