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

constexpr double kMostKeys = 10000;  // no controller has more; a larger count is garbage

// Between two attempts of the hand-over, which makes up to 40 within 4 seconds.
constexpr double kHandOverPauseSeconds = 0.1;

// What a key that answers with something that is no number counts as, in place of an error code.
constexpr int kNotANumberCode = -1;

constexpr int kNotAdmittedCode = -3;  // fv_smc_write's own refusal

ScopeError readFailed(const std::string& key, int code) {
    return ScopeError("SMC " + key + " 读取失败（" + std::to_string(code) + "）",
                      ResultCode::unreadable);
}

ScopeError numberNotSupported(const std::string& key) {
    return ScopeError("SMC " + key + " 不支持写入这个数值", ResultCode::unsupported);
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
    return ScopeError("风扇 " + std::to_string(fan + 1) + " 没有可识别的模式接口",
                      ResultCode::unsupported);
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
    write(key, number, Purpose::setting);
}

void SMC::write(const std::string& key, double number, Purpose purpose) {
    FVValue value{};
    if (const int code = fv_smc_read(connection_, key.c_str(), &value); code != 0) {
        if (purpose == Purpose::givingBack) {
            sendUnread(key, number);
        }
        throw readFailed(key, code);
    }
    if (purpose == Purpose::taking) {
        forms_.insert_or_assign(key, value);  // now, while there is memory
    }
    if (fv_encode(&value, number) != 0) {
        throw numberNotSupported(key);
    }
    const int code = fv_smc_write(connection_, key.c_str(), &value);
    if (code != 0) {
        throw writeFailed(key, code);
    }
    confirm(key, number);
}

// For a fan that is held by a key that no longer answers: the number may still arrive. Takes no
// memory.
void SMC::sendUnread(const std::string& key, double number) {
    const auto form = forms_.find(key);
    if (form == forms_.end()) {
        return;
    }
    FVValue value = form->second;
    if (fv_encode(&value, number) == 0) {
        (void)fv_smc_write(connection_, key.c_str(), &value);  // nothing is confirmed either way
    }
}

void SMC::confirm(const std::string& key, double number) {
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
    const auto count = number(FanKeys::kCount);
    if (!count || *count < 1 || *count > FanLimits::kFans) {
        return fans;
    }
    const auto mask = number(FanKeys::kForcedMask);
    fans.reserve(static_cast<std::size_t>(*count));
    for (int index = 0; index < static_cast<int>(*count); ++index) {
        fans.push_back(fan(index, mask));
    }
    return fans;
}

FanReading SMC::fan(int index, std::optional<double> mask) const {
    const auto read = [&](const char* name) { return number(FanKeys::of(index, name)); };
    FanReading fan;
    fan.id = index;
    // The mask is handed over twice: while any fan is forced, no other fan's "automatic" is sure.
    fan.manual = SMCVerification::manualState(read(FanKeys::kMode), mask, index, mask);
    fan.rpm = read(FanKeys::kSpeed);
    fan.minimum = read(FanKeys::kMinimum);
    fan.maximum = read(FanKeys::kMaximum);
    fan.controllable = read(FanKeys::kTarget) && fan.maximum && *fan.maximum > 0 &&
                       *fan.maximum <= FanLimits::kRatedRpm;
    return fan;
}

void SMC::setManual(int fan, bool enabled) {
    if (!FanLimits::isFan(fan)) {
        throw ScopeError("无效风扇编号");
    }
    if (surroundings_.appleSilicon) {
        armFans_->setManual(fan, enabled);
    } else {
        switchIntelFan(fan, enabled);
    }
}

void SMC::switchIntelFan(int fan, bool enabled) {
    std::string& takenBy = takenBy_[static_cast<std::size_t>(fan)];
    const bool held = !takenBy.empty();
    const std::string modeKey = FanKeys::of(fan, FanKeys::kMode);
    // Asked twice: a mode key that fails once would leave the fan to the mask of a controller that
    // has both.
    const bool answers = takenBy != FanKeys::kForcedMask && (number(modeKey) || number(modeKey));
    const bool byMask = held ? takenBy == FanKeys::kForcedMask : !answers;

    const std::string key = byMask ? FanKeys::kForcedMask : modeKey;
    std::optional<double> order;
    if (byMask) {
        order = maskWith(fan, enabled);
    } else if (answers) {
        order = enabled ? FanMode::kManual : FanMode::kAutomatic;
    }
    if (!order) {
        if (held && !enabled) {
            sendUnread(key, byMask ? maskBefore_ : FanMode::kAutomatic);
        }
        throw noModeKey(fan);
    }
    if (enabled) {
        takenBy = key;  // before the write, which may take effect and fail
    }
    write(key, *order, enabled ? Purpose::taking : Purpose::givingBack);
    if (!enabled) {
        takenBy.clear();
    }
}

// The forced mask with one fan's bit set or cleared; absent when it cannot be read.
std::optional<double> SMC::maskWith(int fan, bool enabled) {
    const auto mask = forcedMask();
    if (!mask) {
        return std::nullopt;
    }
    if (std::count(takenBy_.begin(), takenBy_.end(), FanKeys::kForcedMask) == 0) {
        maskBefore_ = *mask;
    }
    const std::uint32_t bit = 1U << fan;
    return enabled ? *mask | bit : *mask & ~bit;
}

// One bit of the mask is changed and the others are written back as they were read, so a wrong
// reading would switch other fans, and read back as confirmed: it counts only when read twice
// alike.
std::optional<std::uint32_t> SMC::forcedMask() const {
    std::optional<double> last;
    for (int reading = 0; reading < kMaskReadings; ++reading) {
        const auto mask = number(FanKeys::kForcedMask);
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
        [this](const std::string& key, double value) {
            write(key, value, value == FanMode::kManual ? Purpose::taking : Purpose::givingBack);
        },
        [this] { surroundings_.sleep(kHandOverPauseSeconds); }, surroundings_.now);
}

std::optional<double> SMC::target(int fan) {
    return number(FanKeys::of(fan, FanKeys::kTarget));
}

void SMC::setTarget(int fan, double rpm) {
    write(FanKeys::of(fan, FanKeys::kTarget), rpm);
}

std::vector<SMC::SensorKey> SMC::sensorKeys() const {
    const std::vector<ListedKey> listed = listedKeys();
    const auto valueOf = [&](const std::string& key) -> const FVValue* {
        const auto found = std::lower_bound(listed.begin(), listed.end(), key,
                                            [](const ListedKey& entry, const std::string& name) {
                                                return entry.sensor.key < name;
                                            });
        return found != listed.end() && found->sensor.key == key ? &found->value : nullptr;
    };
    std::vector<SensorKey> sensors;
    for (const auto& [sensor, value] : listed) {
        const FVValue* twin = valueOf(SensorInventory::upperCaseTwin(sensor.key));
        if (SensorInventory::worthListing(sensor.key, sensor.kind, value,
                                          surroundings_.appleSilicon) &&
            !(twin && SensorInventory::repeats(sensor.key, value, *twin))) {
            sensors.push_back(sensor);
        }
    }
    return sensors;
}

// Every readable key that is a sensor by name and form, whatever it reads now; sorted.
std::vector<SMC::ListedKey> SMC::listedKeys() const {
    std::vector<ListedKey> listed;
    const auto count = number("#KEY");
    if (!count || *count < 0 || *count > kMostKeys) {
        return listed;
    }
    for (std::uint32_t index = 0; index < static_cast<std::uint32_t>(*count); ++index) {
        if (auto key = keyAt(index)) {
            listed.push_back(std::move(*key));
        }
    }
    const auto name = [](const ListedKey& entry) -> const std::string& { return entry.sensor.key; };
    std::ranges::sort(listed, {}, name);
    // A controller that names a key at two indices has it only once.
    const auto repeated = std::ranges::unique(listed, {}, name);
    listed.erase(repeated.begin(), repeated.end());
    return listed;
}

std::optional<SMC::ListedKey> SMC::keyAt(std::uint32_t index) const {
    char key[FV_SMC_KEY_TEXT_SIZE] = {};
    FVValue value{};
    // Most keys are no sensors by their name alone and are not even read; among them are all that
    // are not printable text.
    if (fv_smc_key_at_index(connection_, index, key) != 0 || !SensorInventory::mayBeSensor(key) ||
        fv_smc_read(connection_, key, &value) != 0) {
        return std::nullopt;
    }
    const auto kind = SensorInventory::smcKind(key, value.data_type, value.data_size);
    if (!kind) {
        return std::nullopt;
    }
    return ListedKey{{key, *kind}, value};
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
