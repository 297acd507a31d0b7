#include "core/hardware/smc.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <string_view>
#include <thread>
#include <utility>

#include "core/hardware/sensor_inventory.h"
#include "core/hardware/smc_verification.h"
#include "core/hardware/system_capabilities.h"
#include "core/model/number_text.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

constexpr int kMaskReadings = 4;  // two alike, with room for one wrong among them

constexpr double kMostKeys = 10000;           // no controller has more; a larger count is garbage
constexpr double kMostFans = 10;              // fan keys have one digit
constexpr double kLargestMaximumRpm = 12000;  // a rated speed above this is not believed

// Between two attempts of the hand-over, which makes up to 40 within 4 seconds.
constexpr double kHandOverPauseSeconds = 0.1;

// What a key that answers with something that is no number counts as, in place of an error code.
constexpr int kNotANumberCode = -1;

constexpr int kNotAdmittedCode = -3;  // fv_smc_write's own refusal

std::string fanKey(int fan, std::string_view suffix) {
    return std::string("F").append(std::to_string(fan)).append(suffix);
}

ScopeError readFailed(const std::string& key, int code) {
    return ScopeError("SMC " + key + " 读取失败（" + std::to_string(code) + "）");
}

ScopeError numberNotSupported(const std::string& key) {
    return ScopeError("SMC " + key + " 不支持写入这个数值");
}

ScopeError writeFailed(const std::string& key, int code) {
    return ScopeError("SMC " + key + " 写入失败（" + std::to_string(code) +
                      "）；此机型可能不支持控制");
}

ScopeError notConfirmed(const std::string& key, double target, std::optional<double> readBack) {
    return ScopeError("SMC " + key + " 回读不一致，操作未确认（目标" + fixed2(target) + "，读回 " +
                      (readBack ? fixed2(*readBack) : "无") + "；已等待最多 2 秒）");
}

ScopeError noModeKey(int fan) {
    // Users count fans from 1.
    return ScopeError("风扇 " + std::to_string(fan + 1) + " 没有可识别的模式接口");
}

void sleepFully(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

}  // namespace

SMC::Surroundings SMC::Surroundings::ofThisMachine() {
    return {fv_uptime_seconds, sleepFully, SystemCapabilities::appleSilicon()};
}

SMC::SMC(Surroundings surroundings) : surroundings_(std::move(surroundings)) {
    if (surroundings_.appleSilicon) {
        makeArmFans();
    }
    connection_ = fv_smc_open();  // last: nothing would close it after a failure
}

SMC::~SMC() {
    fv_smc_close(connection_);
}

void SMC::reopen() {
    fv_smc_close(connection_);
    connection_ = fv_smc_open();
}

FVValue SMC::raw(const std::string& key) const {
    FVValue value{};
    const int code = fv_smc_read(connection_, key.c_str(), &value);
    if (code != 0) {
        throw readFailed(key, code);
    }
    return value;
}

void SMC::write(const std::string& key, double number) {
    FVValue value = raw(key);
    if (fv_encode(&value, number) != 0) {
        throw numberNotSupported(key);
    }
    const int code = fv_smc_write(connection_, key.c_str(), &value);
    if (code != 0) {
        throw writeFailed(key, code);
    }
    std::optional<double> lastReadBack;
    const auto read = [&] {
        const auto reading = this->number(key);
        lastReadBack = reading ? reading : lastReadBack;
        return reading;
    };
    const auto wait = [&] { surroundings_.sleep(SMCVerification::kReadBackPauseSeconds); };
    // By reference, which takes no memory: a fan is handed back, and confirmed, where there is
    // none.
    if (!SMCVerification::waitFor(number, SMCVerification::kReadBackSeconds, surroundings_.now,
                                  std::cref(read), std::cref(wait))) {
        throw notConfirmed(key, number, lastReadBack);
    }
}

std::string SMC::notAdmitted(const std::string& key) {
    return writeFailed(key, kNotAdmittedCode).message();
}

std::vector<FanReading> SMC::fans() {
    std::vector<FanReading> fans;
    const auto count = number("FNum");
    if (!count || *count < 1 || *count > kMostFans) {
        return fans;
    }
    const auto mask = number("FS! ");
    fans.reserve(static_cast<std::size_t>(*count));
    for (int index = 0; index < static_cast<int>(*count); ++index) {
        fans.push_back(fan(index, mask));
    }
    return fans;
}

FanReading SMC::fan(int index, std::optional<double> mask) const {
    FanReading fan;
    fan.id = index;
    // The mask is handed over twice: while any fan is forced, no other fan's "automatic" is sure.
    fan.manual = SMCVerification::manualState(number(fanKey(index, "Md")), mask, index, mask);
    fan.rpm = number(fanKey(index, "Ac"));
    fan.minimum = number(fanKey(index, "Mn"));
    fan.maximum = number(fanKey(index, "Mx"));
    fan.controllable = number(fanKey(index, "Tg")) && fan.maximum && *fan.maximum > 0 &&
                       *fan.maximum <= kLargestMaximumRpm;
    return fan;
}

void SMC::setManual(int fan, bool enabled) {
    if (fan < 0 || fan >= SMCVerification::kFanIndexLimit) {
        throw ScopeError("无效风扇编号");
    }
    if (surroundings_.appleSilicon) {
        armFans_->setManual(fan, enabled);
    } else {
        switchIntelFan(fan, enabled);
    }
}

void SMC::switchIntelFan(int fan, bool enabled) {
    const std::string modeKey = fanKey(fan, "Md");
    if (number(modeKey)) {
        write(modeKey, enabled ? 1 : 0);
        return;
    }
    const auto mask = forcedMask();
    if (!mask) {
        throw noModeKey(fan);
    }
    const std::uint32_t bit = 1U << fan;
    write("FS! ", enabled ? *mask | bit : *mask & ~bit);
}

// One bit of the mask is changed and the others are written back as they were read, so a wrong
// reading would switch other fans, and read back as confirmed: it counts only when read twice
// alike.
std::optional<std::uint32_t> SMC::forcedMask() const {
    std::optional<double> last;
    for (int reading = 0; reading < kMaskReadings; ++reading) {
        const auto mask = number("FS! ");
        if (mask && mask == last && *mask >= 0 && *mask <= SMCVerification::kLargestFanMask) {
            return static_cast<std::uint32_t>(*mask);
        }
        last = mask;
    }
    return std::nullopt;
}

// With the connection, and not with the first fan: a fan is handed back where there is no memory.
void SMC::makeArmFans() {
    armFans_ = std::make_unique<AppleSiliconFanControl>(
        [this](const std::string& key) {
            const FVValue value = raw(key);
            const double number = fv_decode(&value);
            if (!std::isfinite(number)) {
                throw readFailed(key, kNotANumberCode);
            }
            return number;
        },
        [this](const std::string& key, double value) { write(key, value); },
        [this] { surroundings_.sleep(kHandOverPauseSeconds); }, surroundings_.now);
}

std::optional<double> SMC::target(int fan) {
    return number(fanKey(fan, "Tg"));
}

void SMC::setTarget(int fan, double rpm) {
    write(fanKey(fan, "Tg"), rpm);
}

std::vector<SMC::SensorKey> SMC::sensorKeys() const {
    std::vector<SensorKey> sensors;
    const auto count = number("#KEY");
    if (!count || *count < 0 || *count > kMostKeys) {
        return sensors;
    }
    for (std::uint32_t index = 0; index < static_cast<std::uint32_t>(*count); ++index) {
        if (auto sensor = sensorKeyAt(index)) {
            sensors.push_back(std::move(*sensor));
        }
    }
    std::sort(sensors.begin(), sensors.end(),
              [](const SensorKey& a, const SensorKey& b) { return a.key < b.key; });
    // A controller that names a key at two indices has it only once.
    const auto sameKey = [](const SensorKey& a, const SensorKey& b) { return a.key == b.key; };
    sensors.erase(std::unique(sensors.begin(), sensors.end(), sameKey), sensors.end());
    return sensors;
}

std::optional<SMC::SensorKey> SMC::sensorKeyAt(std::uint32_t index) const {
    char key[FV_SMC_KEY_TEXT_SIZE] = {};
    FVValue value{};
    // Most keys are no sensors by their name alone and are not even read; among them are all that
    // are not printable text.
    if (fv_smc_key_at_index(connection_, index, key) != 0 || !SensorInventory::mayBeSensor(key) ||
        fv_smc_read(connection_, key, &value) != 0) {
        return std::nullopt;
    }
    const auto kind = SensorInventory::smcKind(key, value.data_type, value.data_size);
    if (!kind || !SensorInventory::valid(*kind, fv_decode(&value)) ||
        SensorInventory::standsForNoSensor(*kind, key, value)) {
        return std::nullopt;
    }
    return SensorKey{key, *kind};
}

std::vector<std::string> SMC::temperatureKeys() const {
    std::vector<std::string> keys;
    for (auto& sensor : sensorKeys()) {
        if (sensor.kind == HardwareSensorKind::temperature) {
            keys.push_back(std::move(sensor.key));
        }
    }
    return keys;
}

}  // namespace ferovane
