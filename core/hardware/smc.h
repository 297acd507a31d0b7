// The System Management Controller: keys read as numbers, confirmed writes, fans, sensor keys.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/fan/apple_silicon_fan_control.h"
#include "core/fan/cooling_hardware.h"
#include "core/fan/fan_keys.h"
#include "core/model/hardware_sensor.h"
#include "shim/fv.h"

namespace ferovane {

// Owns one connection, opened at construction and closed with the object. Construction never
// fails: on a machine without a controller every read does. One thread at a time; whoever needs the
// controller on another thread opens another.
//
// A key is four characters ("F0Tg", "FS! "). All failures are ScopeErrors.
class SMC : public CoolingHardware {
public:
    // What a read-back wait and the choice of the fan switch need besides the controller.
    struct Surroundings {
        std::function<double()> now;  // monotonic seconds
        // Sleeps that long, also when a stop signal arrives meanwhile: a write that is being
        // confirmed, the one that hands a fan back among them, is confirmed to its end.
        std::function<void(double seconds)> sleep;
        bool appleSilicon = false;

        static Surroundings ofThisMachine();
    };

    SMC() : SMC(Surroundings::ofThisMachine()) {}
    explicit SMC(Surroundings surroundings);
    ~SMC() override;
    SMC(const SMC&) = delete;
    SMC& operator=(const SMC&) = delete;

    void reopen();
    bool available() const { return connection_ != 0; }

    // The key's value exactly as the controller returned it.
    FVValue raw(const std::string& key) const;

    // The key's value as a finite number; absent when it cannot be read or is none.
    std::optional<double> number(const std::string& key) const;

    // Writes in the type that the key has, and returns once the number has been read back
    // (SMCVerification::waitFor), which takes up to two seconds. What can be written at all the
    // shim decides.
    void write(const std::string& key, double number);

    // What write() says of a key that the shim lets nobody write.
    static std::string notAdmitted(const std::string& key);

    // At most ten; empty without a usable fan count.
    std::vector<FanReading> fans() override;

    // By the hand-over on Apple Silicon; on Intel by the fan's mode key or, without one, its bit in
    // the forced-fan mask. A fan that this object took goes back the way it was taken. When that
    // key cannot be read, what gives the fan back is sent all the same, in the form that the key
    // had at the take, and the failure is thrown: nothing has been confirmed.
    void setManual(int fan, bool enabled) override;

    std::optional<double> target(int fan) override;
    void setTarget(int fan, double rpm) override;

    struct SensorKey {
        std::string key;
        HardwareSensorKind kind;
        bool operator==(const SensorKey&) const = default;
    };
    // The keys that are sensors and read a sane value now, or may while they are off;
    // sorted, each once, without the spare spellings of a reading. Empty without a usable key
    // count. Asks for every key that the controller has: hundreds to thousands of calls.
    std::vector<SensorKey> sensorKeys() const;
    std::vector<std::string> temperatureKeys() const;  // those of them that are temperatures

private:
    enum class Purpose { setting, taking, givingBack };
    struct ListedKey {
        SensorKey sensor;
        FVValue value;
    };

    void write(const std::string& key, double number, Purpose purpose);
    void sendUnread(const std::string& key, double number);
    void confirm(const std::string& key, double number);
    std::optional<ListedKey> keyAt(std::uint32_t index) const;
    std::vector<ListedKey> listedKeys() const;
    FanReading fan(int index, std::optional<double> mask) const;
    void switchIntelFan(int fan, bool enabled);
    std::optional<double> maskWith(int fan, bool enabled);
    std::optional<std::uint32_t> forcedMask() const;
    void makeArmFans();

    Surroundings surroundings_;
    std::uint32_t connection_ = 0;                     // 0 when there is no controller
    std::unique_ptr<AppleSiliconFanControl> armFans_;  // null on Intel

    std::map<std::string, FVValue> forms_;  // of the keys by which fans were taken
    // Intel: the key by which a fan is held, empty for one that is not; and the mask before the
    // first fan was taken by it.
    std::array<std::string, FanLimits::kFans> takenBy_;
    double maskBefore_ = 0;
};

// Inline, because a sample reads hundreds of keys and an optional that is returned costs more than
// the decoding.
inline std::optional<double> SMC::number(const std::string& key) const {
    FVValue value{};
    if (fv_smc_read(connection_, key.c_str(), &value) != 0) {
        return std::nullopt;
    }
    const double number = fv_decode(&value);
    return std::isfinite(number) ? std::optional(number) : std::nullopt;
}

}  // namespace ferovane
