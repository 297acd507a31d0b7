#include "core/analysis/sensor_health.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "core/analysis/observation_clock.h"

namespace ferovane {
namespace {

constexpr double kBlockSeconds = 60;
constexpr double kLeastMove = 0.2;   // K of the others in a block that teaches something
constexpr double kMostPairs = 2000;  // then old ones fade
constexpr double kLeastPairs = 30;
constexpr double kLeastFit = 0.5;      // share of its movement that the others explain
constexpr double kPredictedSteps = 5;  // that a standing sensor has missed
constexpr double kPredictedKelvin = 1;
constexpr double kNoiseTimes = 3;
constexpr double kHabitTimes = 3;      // what is that much beyond a habit is none
constexpr double kJumpKelvin = 5;      // no heat sink, board or battery moves so alone,
constexpr double kJumpPerSecond = 2;   // nor so fast
constexpr double kDieJumpKelvin = 40;  // the hot spots of a die do nearly all
constexpr double kLonelyTimes = 1.5;
constexpr int kSpikeSamples = 2;  // a spike is over after so many
constexpr int kOffsetSamples = 5;
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

double middleOf(std::array<double, 5> values) {
    std::ranges::nth_element(values, values.begin() + 2);
    return values[2];
}

}  // namespace

struct SensorHealth::Moves {
    // The two largest changes upwards and downwards, so that each sensor can be compared with the
    // others.
    struct Largest {
        double first = 0, second = 0;

        void take(double size) {
            if (size > first) {
                second = std::exchange(first, size);
            } else {
                second = std::max(second, size);
            }
        }
        double without(double size) const { return size == first ? second : first; }
    };

    double sum = 0;  // of the changes that were counted
    int count = 0;
    int sensors = 0;  // that were there in both samples
    Largest up, down;

    double ofOthers(const Sensor& sensor) const {
        const int others = count - (sensor.counted ? 1 : 0);
        return others > 0 ? (sum - (sensor.counted ? sensor.change : 0)) / others : 0;
    }
    // Whether a change had no company; among too few nobody can tell.
    bool alone(double change) const {
        const Largest& same = change > 0 ? up : down;
        return sensors >= kFewSensors &&
               same.without(std::abs(change)) < kTogetherShare * std::abs(change);
    }
};

SensorHealth::SensorHealth(const std::vector<SensorHabit>& saved) {
    for (const SensorHabit& habit : saved) {
        if (sensors_.size() < kMostSensors) {
            sensors_[habit.key].habit = habit;
        }
    }
}

// Notes the values of a sample; what is not in it is absent.
SensorHealth::Moves SensorHealth::take(const Snapshot& snapshot, bool continues) {
    Moves moves;
    for (auto& [key, sensor] : sensors_) {
        sensor.change = 0;
        sensor.counted = false;
        sensor.known = continues && sensor.present ? sensor.known : 0;
        sensor.present = false;
    }
    for (const SensorReading& reading : snapshot.sensors) {
        auto found = sensors_.find(reading.key);
        if (found == sensors_.end() && sensors_.size() < kMostSensors) {
            found = sensors_.try_emplace(reading.key).first;
            found->second.habit.key = reading.key;
        }
        if (found == sensors_.end() || !std::isfinite(reading.celsius)) {
            continue;
        }
        Sensor& sensor = found->second;
        if (sensor.habit.label != reading.label) {
            sensor.habit.label = reading.label;
        }
        sensor.present = true;
        if (sensor.known > 0) {
            sensor.change = reading.celsius - sensor.value;
            ++moves.sensors;
            (sensor.change > 0 ? moves.up : moves.down).take(std::abs(sensor.change));
        }
        sensor.value = reading.celsius;
    }
    for (auto& [key, sensor] : sensors_) {
        // What one sensor does alone says nothing of the machine.
        sensor.counted = sensor.present && sensor.known > 0 &&
                         (std::abs(sensor.change) < kJumpKelvin || !moves.alone(sensor.change));
        moves.sum += sensor.counted ? sensor.change : 0;
        moves.count += sensor.counted ? 1 : 0;
    }
    return moves;
}

void SensorHealth::add(const Snapshot& snapshot) {
    const Date date = snapshot.date;
    if (!std::isfinite(date.secondsSinceReference) || snapshot.sensors.empty() || last_ == date) {
        return;
    }
    const bool continues = continuesObservation(last_, date);
    const double passed = continues ? date - *last_ : 0;
    last_ = date;
    const Moves moves = take(snapshot, continues);
    for (auto& [key, sensor] : sensors_) {
        if (sensor.present) {
            judge(sensor, moves, date, passed);
        }
        followAbsence(sensor, date, passed);
    }
}

void SensorHealth::judge(Sensor& sensor, const Moves& moves, Date date, double passed) {
    followRun(sensor, moves.ofOthers(sensor), date);
    learn(sensor, passed);
    followJump(sensor, moves, date, passed);
    sensor.newest = (sensor.newest + 1) % sensor.recent.size();
    sensor.recent[sensor.newest] = sensor.value;
    sensor.known = std::min(sensor.known + 1, sensor.recent.size());

    if (isParked(sensor)) {
        sensor.state = SensorState::parked;
        sensor.liveSamples = 0;
    } else if (sensor.state == SensorState::parked && ++sensor.liveSamples < kReadmittedSamples) {
        return;
    } else if (sensor.jump) {
        const bool lasts =
            sensor.jump->samples > kOffsetSamples && date - sensor.jump->since >= kOffsetSeconds;
        sensor.state = lasts ? SensorState::offset : SensorState::suspect;
    } else {
        const bool frozen = standsStill(sensor, date) &&
                            !hasCompany(sensor, &Sensor::flatSince, [date](const Sensor& other) {
                                return standsStill(other, date);
                            });
        sensor.state = frozen ? SensorState::frozen : SensorState::live;
    }
}

void SensorHealth::followRun(Sensor& sensor, double others, Date date) {
    SensorHabit& habit = sensor.habit;
    if (sensor.known > 0 && sensor.change == 0) {
        ++sensor.flatSamples;
        sensor.path += others;
        sensor.lowest = std::min(sensor.lowest, sensor.path);
        sensor.highest = std::max(sensor.highest, sensor.path);
        sensor.moved = std::max(sensor.moved, sensor.highest - sensor.lowest);
        return;
    }
    if (sensor.known > 0) {
        const double step = std::abs(sensor.change);
        habit.step = habit.step == 0 ? step : std::min(habit.step, step);
        sensor.path += others;
    }
    sensor.flatSince = date;
    // A run that has ended was natural.
    sensor.missed = sensor.flatSamples >= kFrozenSamples ? sensor.moved : 0;
    habit.calmest = std::max(habit.calmest, sensor.missed);
    sensor.flatSamples = 0;
    sensor.moved = 0;
    sensor.lowest = sensor.highest = sensor.path;
}

void SensorHealth::learn(Sensor& sensor, double passed) {
    SensorHabit& habit = sensor.habit;
    habit.observed += passed;
    sensor.blockSeconds += passed;
    if (sensor.known > 0 && sensor.blockSeconds < kBlockSeconds) {
        return;
    }
    const double x = sensor.path - sensor.blockPath, y = sensor.value - sensor.blockValue;
    if (sensor.known > 0 && std::abs(x) >= kLeastMove && sensor.state == SensorState::live) {
        const double kept = habit.pairs < kMostPairs ? 1 : 1 - 1 / kMostPairs;
        habit.pairs = habit.pairs * kept + 1;
        habit.xx = habit.xx * kept + x * x;
        habit.xy = habit.xy * kept + x * y;
        habit.yy = habit.yy * kept + y * y;
    }
    sensor.blockSeconds = 0;
    sensor.blockValue = sensor.value;
    sensor.blockPath = sensor.lowest = sensor.highest = sensor.path;
}

void SensorHealth::followJump(Sensor& sensor, const Moves& moves, Date date, double passed) {
    if (sensor.jump && date - sensor.jump->since > kShownSeconds) {
        sensor.jump.reset();
    }
    if (sensor.known == 0) {
        // During a pause anything may have happened.
        sensor.jump = sensor.state == SensorState::offset ? sensor.jump : std::nullopt;
        return;
    }
    const bool alone = moves.alone(sensor.change);
    if (sensor.jump) {
        ++sensor.jump->samples;
        const double height = sensor.jump->to - sensor.jump->from;
        const bool back = alone && sensor.change * height < 0 &&
                          std::abs(sensor.change) > kTogetherShare * std::abs(height);
        if (back) {
            if (sensor.jump->samples <= kSpikeSamples) {
                sensor.spike = sensor.jump;
            }
            sensor.jump.reset();
        } else if (sensor.jump->fromRest && sensor.jump->samples > kSpikeSamples) {
            sensor.jump.reset();
        }
        return;
    }
    if (sensor.known < sensor.recent.size() || !alone) {
        return;
    }
    const double usual = middleOf(sensor.recent);
    const double height = std::abs(sensor.value - usual);
    const double size = std::min(height, std::abs(sensor.change));
    SensorHabit& habit = sensor.habit;
    if (habit.observed < kLearningSeconds) {
        habit.loneliest = std::max(habit.loneliest, size);
    } else if (size > std::max({isDie(habit.key) ? kDieJumpKelvin : kJumpKelvin,
                                kJumpPerSecond * passed, kLonelyTimes * habit.loneliest}) &&
               sensor.state == SensorState::live) {
        sensor.jump = Jump{date, usual, sensor.value, 0, sensor.missed >= kPredictedKelvin};
    }
}

void SensorHealth::followAbsence(Sensor& sensor, Date date, double passed) {
    if (sensor.present) {
        sensor.habit.longestAbsence = std::max(sensor.habit.longestAbsence, sensor.absent);
        sensor.absent = 0;
        return;
    }
    if (sensor.absent == 0) {
        sensor.absentSince = date;
    }
    sensor.absent += passed;
    const bool away =
        sensor.habit.observed >= kLearningSeconds &&
        sensor.absent > std::max(kGoneSeconds, kHabitTimes * sensor.habit.longestAbsence);
    const auto absent = [](const Sensor& other) { return !other.present; };
    sensor.state = away && !hasCompany(sensor, &Sensor::absentSince, absent) ? SensorState::gone
                                                                             : SensorState::live;
}

// Another that does so since the same sample: a part of the chip was switched off.
template <class Does>
bool SensorHealth::hasCompany(const Sensor& sensor, Date Sensor::*since, Does does) const {
    return std::ranges::any_of(sensors_, [&](const auto& entry) {
        const Sensor& other = entry.second;
        return &other != &sensor && other.*since == sensor.*since && does(other);
    });
}

bool SensorHealth::isParked(const Sensor& sensor) {
    return sensor.flatSamples + 1 >= kParkedSamples &&
           (sensor.value <= kLowestCelsius || sensor.value >= kHighestCelsius);
}

// Whether it stays the same to the last bit while the others moved more than it ever stood still
// at, and so far that it should have shown several steps.
bool SensorHealth::standsStill(const Sensor& sensor, Date date) {
    const SensorHabit& habit = sensor.habit;
    if (!sensor.present || sensor.flatSamples < kFrozenSamples ||
        date - sensor.flatSince < kFrozenSeconds || habit.observed < kLearningSeconds ||
        habit.pairs < kLeastPairs || habit.step == 0) {
        return false;
    }
    const double gain = habit.xy / habit.xx;
    const double explained = gain * habit.xy;
    const double noise = std::sqrt(std::max(habit.yy - explained, 0.0) / habit.pairs);
    return explained >= kLeastFit * habit.yy && sensor.moved >= kHabitTimes * habit.calmest &&
           sensor.moved * std::abs(gain) >=
               std::max({kPredictedSteps * habit.step, kPredictedKelvin, kNoiseTimes * noise});
}

SensorState SensorHealth::state(std::string_view key) const {
    const auto found = sensors_.find(key);
    return found == sensors_.end() ? SensorState::live : found->second.state;
}

JudgedTemperature SensorHealth::hottest(const Snapshot& snapshot, SensorCategory category) const {
    JudgedTemperature result;
    std::optional<double> doubtful;
    for (const SensorReading& reading : snapshot.sensors) {
        if (reading.category() != category || !std::isfinite(reading.celsius)) {
            continue;
        }
        const SensorState judged = state(reading.key);
        if (judged == SensorState::live) {
            result.celsius = std::max(result.celsius.value_or(reading.celsius), reading.celsius);
        } else if (judged == SensorState::frozen || judged == SensorState::offset) {
            doubtful = std::max(doubtful.value_or(reading.celsius), reading.celsius);
        }
    }
    if (doubtful && *doubtful > result.celsius.value_or(kHotCelsius)) {
        result = {doubtful, false};
    }
    return result;
}

std::vector<HealthFinding> SensorHealth::findings() const {
    std::vector<HealthFinding> list;
    for (const auto& [key, sensor] : sensors_) {
        const auto tell = [&, &key = key, &label = sensor.habit.label](
                              HealthKind kind, DiagnosticSeverity severity, Date since,
                              std::optional<double> expected, std::optional<double> measured) {
            list.push_back({kind, severity, DiagnosticConfidence::possible, key,
                            label.empty() ? key : label, since, expected, measured});
        };
        if (sensor.state == SensorState::frozen) {
            tell(HealthKind::sensorFrozen, DiagnosticSeverity::warning, sensor.flatSince,
                 std::nullopt, sensor.value);
        } else if (sensor.state == SensorState::offset) {
            tell(HealthKind::sensorOffset, DiagnosticSeverity::warning, sensor.jump->since,
                 sensor.jump->from, sensor.jump->to);
        } else if (sensor.state == SensorState::gone) {
            tell(HealthKind::sensorGone, DiagnosticSeverity::information, sensor.absentSince,
                 std::nullopt, std::nullopt);
        }
        if (sensor.spike && last_ && *last_ - sensor.spike->since < kShownSeconds) {
            tell(HealthKind::sensorSpike, DiagnosticSeverity::information, sensor.spike->since,
                 sensor.spike->from, sensor.spike->to);
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
