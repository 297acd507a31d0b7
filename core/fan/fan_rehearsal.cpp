#include "core/fan/fan_rehearsal.h"

#include <exception>

#include "core/model/scope_error.h"

namespace ferovane {

template <class T, class Ask>
FanReadings::Answer<T> FanReadings::answerTo(Ask ask) {
    try {
        return {ask(), {}};
    } catch (const std::exception& error) {
        return {std::nullopt, describe(error)};
    }
}

template <class T>
const T& FanReadings::told(const Answer<T>& answer) {
    if (!answer.value) {
        throw ScopeError(answer.failure);
    }
    return *answer.value;
}

const std::vector<FanReading>& FanReadings::fans() {
    if (!fans_) {
        fans_ = answerTo<std::vector<FanReading>>([&] { return hardware_.fans(); });
    }
    return told(*fans_);
}

std::optional<double> FanReadings::target(int fan) {
    auto known = targets_.find(fan);
    if (known == targets_.end()) {
        const auto ask = [&] { return hardware_.target(fan); };
        known = targets_.emplace(fan, answerTo<std::optional<double>>(ask)).first;
    }
    return told(known->second);
}

std::optional<double> FanReadings::number(const std::string& key) {
    const auto known = numbers_.find(key);
    return known != numbers_.end() ? known->second
                                   : numbers_.emplace(key, readNumber_(key)).first->second;
}

FanRehearsal::FanRehearsal(FanReadings& readings, const Rules& rules)
    : readings_(readings),
      rules_(rules),
      handOver_([this](const std::string& key) { return read(key); },
                [this](const std::string& key, double value) { write(key, value); }, [] {},
                [] { return 0.0; }) {}

std::vector<FanReading> FanRehearsal::fans() {
    std::vector<FanReading> list;
    for (FanReading fan : readings_.fans()) {
        if (rules_.onlyFan.value_or(fan.id) != fan.id) {
            continue;
        }
        if (const auto taken = manual_.find(fan.id); taken != manual_.end()) {
            fan.manual = taken->second;
        }
        list.push_back(fan);
    }
    listed_ = list.size();
    return list;
}

std::optional<double> FanRehearsal::target(int fan) {
    const auto written = targets_.find(fan);
    return written != targets_.end() ? written->second : readings_.target(fan);
}

void FanRehearsal::setTarget(int fan, double rpm) {
    targets_[fan] = rpm;
}

void FanRehearsal::setManual(int fan, bool enabled) {
    if (rules_.appleSilicon) {
        handOver_.setManual(fan, enabled);
    }
    manual_[fan] = enabled;
}

double FanRehearsal::read(const std::string& key) {
    if (const auto written = written_.find(key); written != written_.end()) {
        return written->second;
    }
    if (const auto number = readings_.number(key)) {
        return *number;
    }
    throw ScopeError(key);  // never told: the hand-over has its own words for what it cannot read
}

// The hand-over writes 1 to take a fan and to unlock, and what it found to give back.
void FanRehearsal::write(const std::string& key, double value) {
    if (rules_.lockRefusal && value == 1) {
        throw ScopeError(*rules_.lockRefusal);
    }
    written_[key] = value;
}

}  // namespace ferovane
