#include "core/analysis/sensor_health.h"

#include <algorithm>
#include <cmath>
#include <functional>

namespace ferovane {
namespace {

constexpr double kBlockSeconds = 60;
constexpr double kMostPairs = 2000;  // then old ones fade
constexpr double kLeastPairs = 30;
constexpr double kLeastFit = 0.5;  // share of its movement that the others explain
constexpr double kNoiseTimes = 3;
constexpr double kPredictedSteps = 5;  // that a standing sensor has missed
constexpr double kPredictedKelvin = 1;
constexpr double kHabitTimes = 3;      // what is that much beyond a habit is none
constexpr double kJumpKelvin = 5;      // no heat sink, board or battery moves so alone,
constexpr double kJumpPerSecond = 2;   // nor so fast
constexpr double kDieJumpKelvin = 40;  // the hot spots of a die do nearly all
constexpr double kLonelyTimes = 1.5;
constexpr int kSettledSamples = 6;    // after a pause
constexpr double kSpikeSamples = 2;   // a spike is over after so many
constexpr double kOffsetSamples = 6;  // an offset has lasted for so many, and for
constexpr double kOffsetSeconds = 60;
constexpr int kFewSensors = 3;
constexpr double kTogetherShare = 0.5;  // another that moves this much of a jump keeps it company
constexpr double kLowestCelsius = 0, kHighestCelsius = 127;  // ends of ranges, and beyond

// Dies, drives among them, warm up by themselves and within a sample; the sensor beside a package
// ends in P on Intel.
bool isDie(std::string_view key) {
    const bool named = key.size() == 4 && key[0] == 'T';
    return named && std::string_view("CGHepgms").find(key[1]) != std::string_view::npos &&
           !((key[1] == 'C' || key[1] == 'G') && key[3] == 'P');
}

bool isAtEnd(double celsius) {
    return celsius <= kLowestCelsius || celsius >= kHighestCelsius;
}

}  // namespace

void SensorResponse::learn(double x, double y) {
    if (std::abs(x) < kLeastMove) {
        return;
    }
    const double kept = pairs < kMostPairs ? 1 : 1 - 1 / kMostPairs;
    pairs = pairs * kept + 1;
    xx = xx * kept + x * x;
    xy = xy * kept + x * y;
    yy = yy * kept + y * y;
}

double SensorResponse::to(double x) const {
    if (pairs < kLeastPairs || xx == 0) {
        return 0;
    }
    const double gain = xy / xx, explained = gain * xy;
    const double noise = std::sqrt(std::max(yy - explained, 0.0) / pairs);
    const double moves = std::abs(gain) * x;
    return explained >= kLeastFit * yy && moves >= kNoiseTimes * noise ? moves : 0;
}

SensorHealth::SensorHealth(const std::vector<SensorHabit>& saved, double longestGapSeconds)
    : clock_(longestGapSeconds) {
    for (const SensorHabit& habit : saved) {
        sensors_[habit.key].habit = habit;
    }
}

void SensorHealth::add(const Snapshot& snapshot) {
    const Date date = snapshot.date;
    const std::optional<Date> before = clock_.last();
    const auto step =
        snapshot.sensors.empty() ? ObservationClock::Step::ignored : clock_.advance(date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    const bool continues = step == ObservationClock::Step::continues;
    const double passed = continues ? date - *before : 0;
    take(snapshot, continues);
    // What one sensor does alone says little of the machine.
    const auto felt = [](const Sensor& sensor) {
        return sensor.moved() ? std::clamp(sensor.change, -kJumpKelvin, kJumpKelvin) : 0;
    };
    double sum = 0;
    int count = 0;
    for (const auto& [key, sensor] : sensors_) {
        sum += felt(sensor);
        count += sensor.moved() ? 1 : 0;
    }
    for (auto& [key, sensor] : sensors_) {
        follow(sensor, count > 1 ? (sum - felt(sensor)) / (count - 1) : 0, date, passed);
    }
    for (auto& [key, sensor] : sensors_) {
        sensor.state = judge(sensor);
    }
    std::erase_if(sensors_, [date](const auto& known) {
        return std::abs(date - known.second.habit.seen) > kForgottenSeconds;
    });
}

// Notes the values of a sample; what is not in it is absent.
void SensorHealth::take(const Snapshot& snapshot, bool continues) {
    std::map<std::string_view, const SensorReading*> readings;
    for (const SensorReading& reading : snapshot.sensors) {
        if (std::isfinite(reading.celsius)) {
            readings[reading.key] = &reading;
            if (sensors_.size() < kMostSensors) {
                sensors_[reading.key].habit.key = reading.key;
            }
        }
    }
    for (auto& [key, sensor] : sensors_) {
        const auto found = readings.find(key);
        if (found == readings.end()) {
            sensor.samples = 0;
            continue;
        }
        sensor.samples = continues ? sensor.samples + 1 : 1;
        sensor.change = found->second->celsius - sensor.value;
        sensor.value = found->second->celsius;
        sensor.habit.label = found->second->label;
        sensor.habit.seen = snapshot.date;
    }
}

// `others`: how far they have moved on average since the sample before.
void SensorHealth::follow(Sensor& sensor, double others, Date date, double passed) {
    sensor.absent = sensor.samples > 0 ? 0 : sensor.absent + passed;
    if (sensor.samples > 0) {
        sensor.habit.observed += passed;
        followRun(sensor, date);
        followMinute(sensor, others, passed);
        followJump(sensor, date, passed);
    }
}

SensorState SensorHealth::judge(const Sensor& sensor) const {
    const SensorHabit& habit = sensor.habit;
    if (sensor.samples == 0) {
        const bool away = habit.observed >= kLearningSeconds && sensor.absent > kGoneSeconds;
        return away && !hasCompany(sensor) ? SensorState::gone : SensorState::live;
    }
    if (isAtEnd(sensor.value)) {
        return SensorState::parked;
    }
    if (sensor.jump) {
        const bool lasts = sensor.jump->raised && habit.seen - sensor.jump->since >= kOffsetSeconds;
        return lasts ? SensorState::offset : SensorState::suspect;
    }
    return standsStill(sensor) && !hasCompany(sensor) ? SensorState::frozen : SensorState::live;
}

void SensorHealth::followRun(Sensor& sensor, Date date) {
    if (sensor.moved() && sensor.change == 0) {
        ++sensor.stillSamples;
        return;
    }
    SensorHabit& habit = sensor.habit;
    sensor.rested = false;
    if (sensor.moved()) {
        const double step = std::abs(sensor.change);
        habit.step = habit.step == 0 ? step : std::min(habit.step, step);
        // A run that has ended was natural.
        if (sensor.stillSamples >= kFrozenSamples) {
            habit.calmest = std::max(habit.calmest, sensor.stood);
            sensor.rested = sensor.stood >= kPredictedKelvin;
        }
    }
    sensor.stillSince = date;
    sensor.stillSamples = 0;
    sensor.stood = 0;
}

void SensorHealth::followMinute(Sensor& sensor, double others, double passed) {
    Minute& minute = sensor.minute;
    minute.seconds += passed;
    minute.others += others;
    minute.lowest = std::min(minute.lowest, minute.others);
    minute.highest = std::max(minute.highest, minute.others);
    ++minute.samples;
    if (sensor.moved() && minute.seconds < kBlockSeconds) {
        return;
    }
    if (sensor.stillSamples >= minute.samples) {
        sensor.stood = std::max(sensor.stood, minute.highest - minute.lowest);
    }
    if (sensor.moved() && sensor.state == SensorState::live) {
        sensor.habit.response.learn(minute.others, sensor.value - minute.from);
    }
    minute = {0, 0, sensor.value};
}

void SensorHealth::followJump(Sensor& sensor, Date date, double passed) {
    auto& jump = sensor.jump;
    if (!sensor.moved()) {
        // During a pause anything may have happened.
        jump = sensor.state == SensorState::offset ? jump : std::nullopt;
    } else if (jump) {
        const double back = sensor.change / (*jump->expected - *jump->measured);
        const bool isBack = back > kTogetherShare && movesAlone(sensor);
        if (isBack && jump->count <= kSpikeSamples) {
            sensor.spike = jump;
        }
        jump->see(1, kOffsetSamples, date, jump->expected, jump->measured);
        if (isBack || date - jump->since > kShownSeconds) {
            jump.reset();
        }
    } else if (sensor.samples >= kSettledSamples) {
        beginJump(sensor, date, passed);
    }
}

void SensorHealth::beginJump(Sensor& sensor, Date date, double passed) {
    SensorHabit& habit = sensor.habit;
    const double size = std::abs(sensor.change);
    const bool learns = habit.observed < kLearningSeconds;
    const double limit = std::max({isDie(habit.key) ? kDieJumpKelvin : kJumpKelvin,
                                   kJumpPerSecond * passed, kLonelyTimes * habit.loneliest});
    if (size <= (learns ? habit.loneliest : limit) || !movesAlone(sensor)) {
        return;
    }
    if (learns) {
        habit.loneliest = std::min(size, kMostLonely);
    } else if (sensor.state == SensorState::live && !sensor.rested) {
        // The end of a rest is no jump: the sensor may have been stuck.
        sensor.jump.emplace().see(1, kOffsetSamples, date, sensor.value - sensor.change,
                                  sensor.value);
    }
}

// Whether no other sensor took part in its change; among too few nobody can tell.
bool SensorHealth::movesAlone(const Sensor& sensor) const {
    int others = 0;
    for (const auto& [key, other] : sensors_) {
        if (&other != &sensor && other.moved()) {
            if (other.change / sensor.change >= kTogetherShare) {
                return false;
            }
            ++others;
        }
    }
    return others + 1 >= kFewSensors;
}

// Whether another stands still or is absent since the same sample: a part of the chip was switched
// off.
bool SensorHealth::hasCompany(const Sensor& sensor) const {
    return std::ranges::any_of(sensors_, [&sensor](const auto& known) {
        const Sensor& other = known.second;
        if (&other == &sensor || other.habit.seen != sensor.habit.seen) {
            return false;
        }
        return sensor.samples == 0 || (other.stillSince == sensor.stillSince && standsStill(other));
    });
}

// Whether it stays the same to the last bit while the others moved more than it ever stood still
// at, and so far that it should have shown several steps.
bool SensorHealth::standsStill(const Sensor& sensor) {
    const SensorHabit& habit = sensor.habit;
    return sensor.stillSamples >= kFrozenSamples &&
           habit.seen - sensor.stillSince >= kFrozenSeconds && habit.observed >= kLearningSeconds &&
           habit.step > 0 && sensor.stood >= kHabitTimes * habit.calmest &&
           habit.response.to(sensor.stood) >=
               std::max(kPredictedSteps * habit.step, kPredictedKelvin);
}

SensorState SensorHealth::state(std::string_view key) const {
    const auto found = sensors_.find(key);
    return found == sensors_.end() ? SensorState::live : found->second.state;
}

JudgedTemperature SensorHealth::hottest(const Snapshot& snapshot, SensorCategory category) const {
    std::optional<double> sure, doubtful;
    for (const SensorReading& reading : snapshot.sensors) {
        const SensorState judged = state(reading.key);
        if (reading.category() == category && std::isfinite(reading.celsius) &&
            judged != SensorState::parked) {
            auto& hottest = judged == SensorState::live ? sure : doubtful;
            hottest = std::max(hottest.value_or(reading.celsius), reading.celsius);
        }
    }
    const bool certain = !doubtful || *doubtful <= sure.value_or(kHotCelsius);
    return {certain ? sure : doubtful, certain};
}

std::vector<HealthFinding> SensorHealth::findings() const {
    using Severity = DiagnosticSeverity;
    std::vector<HealthFinding> list;
    for (const auto& [key, sensor] : sensors_) {
        const SensorHabit& habit = sensor.habit;
        const auto tell = [&](HealthKind kind, Severity severity, const Evidence& evidence) {
            list.push_back({kind, severity, DiagnosticConfidence::possible, habit.key,
                            habit.label.empty() ? habit.key : habit.label, evidence});
        };
        if (sensor.state == SensorState::frozen) {
            tell(HealthKind::sensorFrozen, Severity::warning,
                 {.since = sensor.stillSince, .measured = sensor.value});
        } else if (sensor.state == SensorState::offset) {
            tell(HealthKind::sensorOffset, Severity::warning, *sensor.jump);
        } else if (sensor.state == SensorState::gone) {
            tell(HealthKind::sensorGone, Severity::information, {.since = habit.seen});
        }
        if (sensor.spike && *clock_.last() - sensor.spike->since < kShownSeconds) {
            tell(HealthKind::sensorSpike, Severity::information, *sensor.spike);
        }
    }
    return list;
}

std::vector<SensorHabit> SensorHealth::habits() const {
    std::vector<SensorHabit> list;
    for (const auto& [key, sensor] : sensors_) {
        list.push_back(sensor.habit);
    }
    return list;
}

}  // namespace ferovane
