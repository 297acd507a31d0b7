// Fans that answer as a machine's do and whose writes go nowhere.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/fan/apple_silicon_fan_control.h"
#include "core/fan/cooling_hardware.h"

namespace ferovane {

// What a machine read, each thing once, so that every rehearsal meets the same machine.
class FanReadings {
public:
    using Number = std::function<std::optional<double>(const std::string& key)>;

    FanReadings(CoolingHardware& hardware, Number number)
        : hardware_(hardware), readNumber_(std::move(number)) {}

    // As CoolingHardware's; what failed once fails every time, in the same words.
    const std::vector<FanReading>& fans();
    std::optional<double> target(int fan);

    // Absent when the key cannot be read or holds no number.
    std::optional<double> number(const std::string& key);

private:
    // A value, or what was said in its place.
    template <class T>
    struct Answer {
        std::optional<T> value;
        std::string failure;
    };
    template <class T, class Ask>
    static Answer<T> answerTo(Ask ask);
    template <class T>
    static const T& told(const Answer<T>& answer);

    CoolingHardware& hardware_;
    Number readNumber_;
    std::optional<Answer<std::vector<FanReading>>> fans_;
    std::map<int, Answer<std::optional<double>>> targets_;
    std::map<std::string, std::optional<double>> numbers_;
};

// Writes are accepted and read back, but the machine is not told. One rehearsal, one object.
class FanRehearsal : public CoolingHardware {
public:
    struct Rules {
        bool appleSilicon = false;
        // No fan becomes manual until the unlock key is written, which fails with this text.
        std::optional<std::string> lockRefusal;
        std::optional<int> onlyFan;  // the others are not listed
    };

    FanRehearsal(FanReadings& readings, const Rules& rules);

    std::vector<FanReading> fans() override;
    std::optional<double> target(int fan) override;
    void setTarget(int fan, double rpm) override;
    void setManual(int fan, bool enabled) override;

    // Every fan has been given a target: a lease has nothing left to rehearse.
    bool allDriven() const { return listed_ > 0 && targets_.size() >= listed_; }

private:
    double read(const std::string& key);
    void write(const std::string& key, double value);

    FanReadings& readings_;
    Rules rules_;
    std::size_t listed_ = 0;
    std::map<int, bool> manual_;
    std::map<int, double> targets_;
    std::map<std::string, double> written_;
    AppleSiliconFanControl handOver_;
};

}  // namespace ferovane
