#include "core/analysis/sensor_catalog.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "shim/fv.h"

namespace ferovane {
namespace {

constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";

constexpr std::size_t kLongestBrandSize = 255;  // with its NUL; a longer one is no brand

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

SensorNamingPlatform detectThisMachine() {
    std::array<char, kLongestBrandSize> brand{};
    return fv_cpu_brand(brand.data(), brand.size()) == 0 ? detectNamingPlatform(brand.data())
                                                         : SensorNamingPlatform::generic;
}

}  // namespace

SensorNamingPlatform detectNamingPlatform(std::string_view cpuBrand) {
    const std::string_view brand = trimmed(cpuBrand);
    if (brand == "Apple M4") {
        return SensorNamingPlatform::appleM4;
    }
    if (brand == "Apple M4 Pro" || brand == "Apple M4 Max") {
        return SensorNamingPlatform::appleM4ProMax;
    }
    return SensorNamingPlatform::generic;
}

SensorNamingPlatform currentNamingPlatform() {
    static const SensorNamingPlatform platform = detectThisMachine();
    return platform;
}

std::string_view title(SensorComponent component) {
    switch (component) {
        case SensorComponent::cpu:
            return "处理器";
        case SensorComponent::gpu:
            return "图形处理器";
        case SensorComponent::memory:
            return "内存";
        case SensorComponent::storage:
            return "存储";
        case SensorComponent::battery:
            return "电池";
        case SensorComponent::wireless:
            return "无线网络";
        case SensorComponent::fan:
            return "风扇";
        case SensorComponent::power:
            return "供电";
        case SensorComponent::unknown:
            return "用途未识别";
    }
    return {};
}

namespace SensorCatalog {
namespace {

using Kind = HardwareSensorKind;
using Platform = SensorNamingPlatform;

constexpr SensorMeaning kFanSpeed{SensorComponent::fan, "风扇转速",
                                  "风扇每分钟实际转动的次数，转速越高通常噪声也越大。"};
constexpr SensorMeaning kCpuProbe{SensorComponent::cpu, "处理器温度探头",
                                  "反映处理器内部或附近位置的温度。多个探头不代表多个核心。"};
constexpr SensorMeaning kGpuProbe{SensorComponent::gpu, "图形处理器温度探头",
                                  "反映图形处理器相关位置的温度。"};
constexpr SensorMeaning kStorageProbe{SensorComponent::storage, "存储温度探头",
                                      "反映固态硬盘或存储相关位置的温度。"};
constexpr SensorMeaning kBatteryProbe{SensorComponent::battery, "电池温度探头",
                                      "反映电池相关位置的温度。"};
constexpr SensorMeaning kWirelessProbe{SensorComponent::wireless, "无线模块温度",
                                       "反映无线网络模块附近的温度。"};
constexpr SensorMeaning kMemoryProbe{SensorComponent::memory, "内存附近温度探头",
                                     "反映内存附近的温度，并非内存使用率。"};
constexpr SensorMeaning kMachinePower{SensorComponent::power, "整机功耗",
                                      "设备内部报告的总功率，单位为瓦；不等同于插座功耗。"};
constexpr SensorMeaning kInputPower{SensorComponent::power, "直流输入功耗",
                                    "设备直流输入侧的功率，单位为瓦；不等同于插座功耗。"};
constexpr SensorMeaning kCpuPower{SensorComponent::cpu, "处理器功耗",
                                  "处理器相关电路报告的瞬时功率，单位为瓦。"};
constexpr SensorMeaning kGpuPower{SensorComponent::gpu, "图形处理器功耗",
                                  "图形处理器相关电路报告的瞬时功率，单位为瓦。"};
constexpr SensorMeaning kMemoryPower{SensorComponent::memory, "内存功耗",
                                     "内存相关电路报告的瞬时功率，单位为瓦。"};
constexpr SensorMeaning kInputVoltage{SensorComponent::power, "直流输入电压",
                                      "设备直流输入侧的电压，单位为伏。"};
constexpr SensorMeaning kInputCurrent{SensorComponent::power, "直流输入电流",
                                      "设备直流输入侧的电流，单位为安。"};

constexpr std::array kEverywhere{Platform::generic, Platform::appleM4, Platform::appleM4ProMax};
constexpr std::array kBothM4{Platform::appleM4, Platform::appleM4ProMax};
constexpr std::array kM4Only{Platform::appleM4};
constexpr std::array kM4ProMaxOnly{Platform::appleM4ProMax};

// Says what the keys of one kind mean: those listed (separated by blanks), or all that begin with
// what stands before an asterisk. The first rule that matches decides.
struct Rule {
    Kind kind;
    std::string_view keys;
    std::span<const Platform> platforms;
    const SensorMeaning& meaning;
};

constexpr std::array kRules{
    Rule{Kind::fan, "*", kEverywhere, kFanSpeed},

    Rule{Kind::temperature, "TC*", kEverywhere, kCpuProbe},
    Rule{Kind::temperature, "TG*", kEverywhere, kGpuProbe},
    Rule{Kind::temperature, "TH*", kEverywhere, kStorageProbe},
    Rule{Kind::temperature, "TB*", kEverywhere, kBatteryProbe},
    Rule{Kind::temperature, "TW0P", kEverywhere, kWirelessProbe},
    // Names that only these chips are known to use in this way.
    Rule{Kind::temperature, "Te05 Te0S Te09 Te0H Tp01 Tp05 Tp09 Tp0D Tp0V Tp0Y Tp0b Tp0e", kBothM4,
         kCpuProbe},
    Rule{Kind::temperature, "Tg0K Tg0L Tg0d Tg0e Tg0j Tg0k", kBothM4, kGpuProbe},
    Rule{Kind::temperature, "Tg0G Tg0H", kM4Only, kGpuProbe},
    Rule{Kind::temperature, "Tg1U Tg1k", kM4ProMaxOnly, kGpuProbe},
    Rule{Kind::temperature, "Tm0p Tm1p Tm2p", kBothM4, kMemoryProbe},

    Rule{Kind::power, "PSTR", kEverywhere, kMachinePower},
    Rule{Kind::power, "PDTR", kEverywhere, kInputPower},
    Rule{Kind::power, "PCPC PCPT PCTR PCPR", kEverywhere, kCpuPower},
    Rule{Kind::power, "PG0C PG0R PG1R", kEverywhere, kGpuPower},
    Rule{Kind::power, "PMTR", kEverywhere, kMemoryPower},
    Rule{Kind::voltage, "VD0R", kEverywhere, kInputVoltage},
    Rule{Kind::current, "ID0R", kEverywhere, kInputCurrent},
};

// The keys that tell the power of the whole machine, the better one first.
constexpr std::array<std::string_view, 2> kMachinePowerKeys{"PSTR", "PDTR"};

struct TemperatureRow {
    SensorComponent component;
    std::string_view title, explanation;
};

constexpr std::array<TemperatureRow, 4> kTemperatureRows{{
    {SensorComponent::cpu, "处理器温度", "反映处理器运行时的发热情况。"},
    {SensorComponent::gpu, "图形处理器温度", "反映图形处理器运行时的发热情况。"},
    {SensorComponent::memory, "内存附近温度", "内存附近位置的温度，不代表内存占用。"},
    {SensorComponent::storage, "存储温度", "反映固态硬盘等存储部件的温度。"},
}};

bool lists(std::string_view keys, std::string_view key) {
    if (keys.back() == '*') {
        return key.starts_with(keys.substr(0, keys.size() - 1));
    }
    while (!keys.empty()) {
        const std::string_view first = keys.substr(0, keys.find(' '));
        if (first == key) {
            return true;
        }
        keys.remove_prefix(std::min(first.size() + 1, keys.size()));
    }
    return false;
}

std::optional<double> valueOf(const HardwareSensorReading& reading) {
    return std::isfinite(reading.value) ? std::optional(reading.value) : std::nullopt;
}

// The row of one reading alone.
CommonSensorReading rowOf(const HardwareSensorReading& reading, std::string_view title,
                          std::string_view explanation) {
    return {std::string(rawValue(reading.kind)) + ":" + reading.key,
            std::string(title),
            std::string(explanation),
            reading.kind,
            valueOf(reading),
            {reading.key}};
}

CommonSensorReading emptyRow(const TemperatureRow& row) {
    return {std::string(rawValue(row.component)),
            std::string(row.title),
            std::string(row.explanation),
            Kind::temperature,
            std::nullopt,
            {}};
}

void fold(const HardwareSensorReading& reading, CommonSensorReading& row) {
    row.value = std::max(row.value.value_or(reading.value), reading.value);
    row.sources.push_back(reading.key);
}

void addTemperatures(std::span<const HardwareSensorReading> readings, Platform platform,
                     std::vector<CommonSensorReading>& rows) {
    std::array<CommonSensorReading, kTemperatureRows.size()> found;
    std::transform(kTemperatureRows.begin(), kTemperatureRows.end(), found.begin(), emptyRow);
    for (const HardwareSensorReading& reading : readings) {
        if (reading.kind != Kind::temperature || !valueOf(reading)) {
            continue;
        }
        const auto known = meaning(reading, platform);
        for (std::size_t i = 0; known && i < found.size(); ++i) {
            if (known->component == kTemperatureRows[i].component) {
                fold(reading, found[i]);
            }
        }
    }
    for (CommonSensorReading& row : found) {
        if (row.value) {
            rows.push_back(std::move(row));
        }
    }
}

void addFans(std::span<const HardwareSensorReading> readings,
             std::vector<CommonSensorReading>& rows) {
    for (const HardwareSensorReading& reading : readings) {
        if (reading.kind == Kind::fan) {
            rows.push_back(rowOf(reading, reading.label, kFanSpeed.explanation));
        }
    }
}

void addMachinePower(std::span<const HardwareSensorReading> readings, Platform platform,
                     std::vector<CommonSensorReading>& rows) {
    for (const std::string_view key : kMachinePowerKeys) {
        for (const HardwareSensorReading& reading : readings) {
            if (reading.kind != Kind::power || reading.key != key || !valueOf(reading)) {
                continue;
            }
            if (const auto known = meaning(reading, platform)) {
                rows.push_back(rowOf(reading, known->title, known->explanation));
                return;
            }
        }
    }
}

}  // namespace

std::optional<SensorMeaning> meaning(const HardwareSensorReading& reading, Platform platform) {
    const auto* rule = std::find_if(kRules.begin(), kRules.end(), [&](const Rule& candidate) {
        return candidate.kind == reading.kind && lists(candidate.keys, reading.key) &&
               std::find(candidate.platforms.begin(), candidate.platforms.end(), platform) !=
                   candidate.platforms.end();
    });
    return rule == kRules.end() ? std::nullopt : std::optional(rule->meaning);
}

std::vector<CommonSensorReading> common(std::span<const HardwareSensorReading> readings,
                                        Platform platform) {
    std::vector<CommonSensorReading> rows;
    addTemperatures(readings, platform, rows);
    addFans(readings, rows);
    addMachinePower(readings, platform, rows);
    return rows;
}

std::string_view temperatureTitle(SensorComponent component) {
    const auto* row = std::ranges::find(kTemperatureRows, component, &TemperatureRow::component);
    return row == kTemperatureRows.end() ? std::string_view() : row->title;
}

}  // namespace SensorCatalog
}  // namespace ferovane
