#include "core/analysis/heat_trend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <string_view>
#include <utility>

#include "core/analysis/observation_clock.h"

namespace ferovane {
namespace {

constexpr double kMinuteSeconds = 60;
constexpr std::size_t kLeastSamples = 3;   // in a minute
constexpr double kEvenWatts = 0.25;        // range within a minute, as a share of its mean
constexpr double kEvenFlow = 0.05;         // range, as a share of full speed
constexpr double kEvenKelvin = 1;          // between the means of two minutes
constexpr double kLeastRise = 15;          // K of the die above the room: a load
constexpr double kKeptEverySeconds = 600;  // minutes close together tell the same
constexpr double kSameFlow = 0.1;          // fans that do as they are asked
constexpr std::size_t kLeastMinutes = 3;   // in a day
constexpr double kLoadedShare = 0.5;       // of the day's highest power

// What the sink gives to the air: a part without any flow, and the rest with a power of it.
constexpr double kStillAirShare = 0.25;
constexpr double kFlowExponent = 0.7;

// A hypothesis about the fans fits within this share of the usual, and the other is so far off,
// also in comparison.
constexpr double kFits = 0.3, kClearlyNot = 0.25, kClearlyTimes = 2.5;

constexpr std::array<std::string_view, 4> kSinkKeys{"TC0P", "TC1P", "Th1H", "Th2H"};
constexpr std::array<std::string_view, 4> kRoomKeys{"TA0V", "TAOL", "TA0P", "TA0S"};
constexpr std::array<std::string_view, 6> kPowerKeys{"PCPT", "PCTR", "PCPC",
                                                     "PC0R", "PHPC", "PSTR"};

double conductance(double flow) {
    return kStillAirShare + (1 - kStillAirShare) * std::pow(std::max(flow, 0.0), kFlowExponent);
}

Date dateOf(int day) {
    return Date{day * kDaySeconds};
}

double medianValue(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::ranges::nth_element(values, middle);
    return *middle;
}

// The medians of some days or minutes, of which there is at least one.
HeatDay medians(std::span<const HeatDay> of) {
    std::vector<double> toSink, toAir, watts;
    for (const HeatDay& each : of) {
        if (each.dieToSink) {
            toSink.push_back(*each.dieToSink);
        }
        toAir.push_back(each.toAir);
        watts.push_back(each.watts);
    }
    HeatDay result{of.back().day, {}, medianValue(std::move(toAir)), medianValue(std::move(watts))};
    if (!toSink.empty()) {
        result.dieToSink = medianValue(std::move(toSink));
    }
    return result;
}

bool hasPart(const std::string& sensors, std::string_view part) {
    return sensors.find(part) != std::string::npos;
}

constexpr std::string_view kSinkPart = "sink=", kRoomPart = "room=";

template <class Readings>
std::optional<double> pick(const Readings& readings, std::span<const std::string_view> keys,
                           double (*value)(const typename Readings::value_type&),
                           std::string_view part, std::string& sensors) {
    for (const std::string_view key : keys) {
        for (const auto& reading : readings) {
            if (reading.key == key && std::isfinite(value(reading))) {
                sensors.append(part).append(key).append(" ");
                return value(reading);
            }
        }
    }
    return std::nullopt;
}

}  // namespace

HeatSample heatSample(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    HeatSample sample;
    sample.date = snapshot.date;
    sample.die = snapshot.cpuTemperature();
    const auto celsius = [](const SensorReading& reading) { return reading.celsius; };
    sample.sink = pick(snapshot.sensors, kSinkKeys, +celsius, kSinkPart, sample.sensors);
    sample.room = pick(snapshot.sensors, kRoomKeys, +celsius, kRoomPart, sample.sensors);
    if (snapshot.additionalSensors) {
        const auto watts = [](const HardwareSensorReading& reading) { return reading.value; };
        sample.watts =
            pick(*snapshot.additionalSensors, kPowerKeys, +watts, "power=", sample.sensors);
    }
    for (const FanReading& fan : snapshot.fans) {
        const double full = fan.maximum.value_or(0);
        const auto target = std::ranges::find(targets, fan.id, &FanTarget::id);
        const double share = full > 0 ? fan.rpm.value_or(0) / full : 0;
        sample.flow += share / static_cast<double>(snapshot.fans.size());
        sample.asked += (full > 0 && target != targets.end() ? target->rpm / full : share) /
                        static_cast<double>(snapshot.fans.size());
    }
    return sample;
}

void HeatTrend::add(const HeatSample& sample) {
    if (!std::isfinite(sample.date.secondsSinceReference) || last_ == sample.date) {
        return;
    }
    if (last_ && dayOf(*last_) != dayOf(sample.date)) {
        finishDay();
    }
    const auto isFinite = [](std::optional<double> value) {
        return std::isfinite(value.value_or(0));
    };
    const bool usable = sample.die && sample.watts && isFinite(sample.die) &&
                        isFinite(sample.watts) && isFinite(sample.sink) && isFinite(sample.room) &&
                        isFinite(sample.flow) && isFinite(sample.asked);
    if (!usable || !continuesObservation(last_, sample.date)) {
        minute_.clear();
        before_.reset();
        turning_.reset();
    }
    last_ = sample.date;
    if (!usable) {
        return;
    }
    if (sample.sensors != record_.sensors) {
        restart();
        record_.sensors = sample.sensors;
    }
    if (minute_.size() < kMostSamples) {
        minute_.push_back(sample);
    }
    if (sample.date - minute_.front().date >= kMinuteSeconds) {
        finishMinute();
    }
}

void HeatTrend::finishMinute() {
    const auto samples = std::exchange(minute_, {});
    const auto mean = [&](auto value) {
        double sum = 0;
        for (const HeatSample& sample : samples) {
            sum += value(sample);
        }
        return sum / static_cast<double>(samples.size());
    };
    const auto range = [&](auto value) {
        const auto [least, most] = std::ranges::minmax(samples, {}, value);
        return value(most) - value(least);
    };
    const auto watts = [](const HeatSample& it) { return *it.watts; };
    const auto flow = [](const HeatSample& it) { return it.flow; };
    const Minute minute{mean([](const auto& it) { return *it.die; }),
                        mean([](const auto& it) { return it.sink.value_or(*it.die); }),
                        mean([](const auto& it) { return it.room.value_or(kAssumedRoom); }),
                        mean(watts),
                        mean(flow),
                        mean([](const auto& it) { return it.asked; })};
    const bool even = samples.size() >= kLeastSamples && minute.watts > 0 &&
                      range(watts) <= kEvenWatts * minute.watts && range(flow) <= kEvenFlow;
    const auto before = std::exchange(before_, even ? std::optional(minute) : std::nullopt);
    turning_.reset();
    if (!even || !before || std::abs(minute.die - before->die) > kEvenKelvin ||
        std::abs(minute.sink - before->sink) > kEvenKelvin / 2 ||
        std::abs(minute.flow - before->flow) > kEvenFlow || minute.die - minute.room < kLeastRise) {
        return;
    }
    const double toAir = (minute.sink - minute.room) / minute.watts;
    const Date date = samples.back().date;
    if (std::abs(minute.flow - minute.asked) > kSameFlow) {
        judgeFans(minute, toAir);
    } else if (!lastKept_ || std::abs(date - *lastKept_) >= kKeptEverySeconds) {
        lastKept_ = date;
        HeatDay kept{dayOf(date), {}, toAir * conductance(minute.flow), minute.watts};
        if (samples.back().sink) {
            kept.dieToSink = (minute.die - minute.sink) / minute.watts;
        }
        minutes_.push_back(kept);
    }
}

void HeatTrend::judgeFans(const Minute& minute, double toAir) {
    if (record_.days.empty()) {
        return;
    }
    const std::size_t recent = std::min<std::size_t>(record_.days.size(), kWindowDays);
    const double usual = medians(std::span(record_.days).last(recent)).toAir;
    const auto off = [&](double flow) {
        return std::abs(std::log(toAir * conductance(flow) / usual));
    };
    const double asAsked = off(minute.asked), asSeen = off(minute.flow);
    const auto [better, worse] = std::minmax(asAsked, asSeen);
    if (better <= kFits && worse >= std::max(kClearlyNot, kClearlyTimes * better)) {
        turning_ = asAsked < asSeen;
    }
}

void HeatTrend::finishDay() {
    const auto minutes = std::exchange(minutes_, {});
    double most = 0;
    for (const HeatDay& minute : minutes) {
        most = std::max(most, minute.watts);
    }
    std::vector<HeatDay> loaded;
    std::ranges::copy_if(minutes, std::back_inserter(loaded), [&](const HeatDay& minute) {
        return minute.watts >= kLoadedShare * most;
    });
    if (loaded.size() >= kLeastMinutes) {
        addDay(medians(loaded));
    }
}

void HeatTrend::addDay(const HeatDay& day) {
    auto& days = record_.days;
    while (!days.empty() && days.back().day >= day.day) {
        days.pop_back();
    }
    while (days.size() >= kMostDays) {
        days.erase(days.begin());
    }
    days.push_back(day);
    if (record_.baseline) {
        record_.nextCheck = std::min(record_.nextCheck, day.day + kWindowDays);
        if (day.day >= record_.nextCheck) {
            check();
            record_.nextCheck = day.day + kCheckDays;
        }
    } else if (std::int64_t{day.day} - days.front().day >= kBaselineDays - 1 &&
               days.size() >= kBaselineValid) {
        record_.baseline = medians(days);
        record_.baselineFrom = days.front().day;
        record_.nextCheck = day.day + kWindowDays;
    }
}

void HeatTrend::check() {
    const HeatDay& baseline = *record_.baseline;
    const int today = record_.days.back().day;
    const auto first = std::ranges::find_if(
        record_.days, [&](const HeatDay& day) { return day.day > today - kWindowDays; });
    const std::span<const HeatDay> window(first, record_.days.end());
    if (window.size() < kWindowValid) {
        return;
    }
    const HeatDay now = medians(window);
    const auto judge = [&](HeatShift& shift, double usual, double value, double allowance) {
        shift.kelvin = (value - usual) * baseline.watts;
        const double limit =
            std::max(kLimitKelvin, kLimitShare * usual * baseline.watts) + allowance;
        if (shift.kelvin < limit) {
            shift.checks = 0;
        } else if (++shift.checks == 1) {
            shift.since = dateOf(today);
        }
    };
    if (now.dieToSink && baseline.dieToSink) {
        judge(record_.toSink, *baseline.dieToSink, *now.dieToSink, 0);
    }
    judge(record_.toAir, baseline.toAir, now.toAir,
          hasPart(record_.sensors, kRoomPart) ? 0 : kSeasonKelvin);
}

void HeatTrend::restart() {
    std::string sensors = std::move(record_.sensors);
    record_ = {};
    record_.sensors = std::move(sensors);
    minutes_.clear();
    before_.reset();
}

std::vector<HealthFinding> HeatTrend::findings() const {
    std::vector<HealthFinding> list;
    const auto tell = [&](HealthKind kind, const HeatShift& shift, const char* part,
                          bool roomUnknown) {
        if (shift.checks >= kChecks && record_.baseline) {
            using Severity = DiagnosticSeverity;
            list.push_back(
                {kind,
                 roomUnknown ? Severity::information : Severity::warning,
                 DiagnosticConfidence::possible,
                 part,
                 {},
                 shift.since,
                 {},
                 shift.kelvin,
                 HealthFinding::Days{dateOf(record_.baselineFrom), dateOf(record_.baseline->day)},
                 roomUnknown});
        }
    };
    tell(HealthKind::hotterToSink, record_.toSink, "sink", false);
    tell(hasPart(record_.sensors, kSinkPart) ? HealthKind::hotterToAir : HealthKind::hotterOverall,
         record_.toAir, "air", !hasPart(record_.sensors, kRoomPart));
    return list;
}

}  // namespace ferovane
