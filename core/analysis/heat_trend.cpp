#include "core/analysis/heat_trend.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string_view>
#include <utility>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

constexpr std::size_t kLeastSamples = 4;   // in a window
constexpr double kEvenWatts = 0.25;        // range, as a share of the mean
constexpr double kEvenFlow = 0.05;         // range, as a share of full speed
constexpr double kEvenDie = 1;             // K between the means of its halves
constexpr double kEvenSink = 0.5;          // K
constexpr double kLeastRise = 15;          // K of the die above the room: a load
constexpr double kKeptEverySeconds = 600;  // windows close together tell the same
constexpr double kSameFlow = 0.1;          // fans that do as they are asked
constexpr std::size_t kLeastWindows = 3;   // in a day
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
constexpr std::string_view kSinkPart = "sink=", kRoomPart = "room=", kPowerPart = "power=";

using Member = std::optional<double> HeatSample::*;
constexpr std::array kTrendMembers{&HeatSample::die,   &HeatSample::sink, &HeatSample::room,
                                   &HeatSample::watts, &HeatSample::flow, &HeatSample::asked};

double conductance(double flow) {
    return kStillAirShare + (1 - kStillAirShare) * std::pow(std::max(flow, 0.0), kFlowExponent);
}

// Kelvin per watt from sink to air, at full speed if the fans turn like this.
double toAir(const HeatSample& means, double flow) {
    return (*means.sink - *means.room) / *means.watts * conductance(flow);
}

Date dateOf(int day) {
    return Date{day * kDaySeconds};
}

// The medians of some days or minutes, of which there is at least one.
HeatDay medians(std::span<const HeatDay> of) {
    const auto median = [of](double HeatDay::*member) {
        std::vector<double> values;
        for (const HeatDay& each : of) {
            values.push_back(each.*member);
        }
        return quantile(std::move(values), 0.5);
    };
    return {of.back().day, median(&HeatDay::dieToSink), median(&HeatDay::toAir),
            median(&HeatDay::watts)};
}

bool hasPart(const std::string& sensors, std::string_view part) {
    return sensors.find(part) != std::string::npos;
}

// The first of these keys that gives a number, and its name behind `part`.
template <class Reading>
std::optional<double> pick(const std::vector<Reading>& readings, double Reading::*value,
                           std::span<const std::string_view> keys, std::string_view part,
                           std::string& sensors) {
    for (const std::string_view key : keys) {
        for (const Reading& reading : readings) {
            if (reading.key == key && std::isfinite(reading.*value)) {
                sensors.append(part).append(key).append(" ");
                return reading.*value;
            }
        }
    }
    return std::nullopt;
}

// Complete, or absent when it is no use.
std::optional<HeatSample> completed(HeatSample sample) {
    for (const Member member : kTrendMembers) {
        sample.*member = ifFinite(sample.*member);
    }
    if (!sample.die || !sample.watts || !sample.flow || !sample.asked) {
        return std::nullopt;
    }
    sample.sink = sample.sink.value_or(*sample.die);
    sample.room = sample.room.value_or(HeatTrend::kAssumedRoom);
    return sample;
}

HeatSample meansOf(std::span<const HeatSample> samples) {
    HeatSample means;
    means.date = samples.back().date;
    for (const Member member : kTrendMembers) {
        double sum = 0;
        for (const HeatSample& sample : samples) {
            sum += *(sample.*member);
        }
        means.*member = sum / static_cast<double>(samples.size());
    }
    return means;
}

// Whether the heat has found its balance, under a load.
bool isSteady(std::span<const HeatSample> samples, const HeatSample& means) {
    if (samples.size() < kLeastSamples || *means.watts <= 0) {
        return false;
    }
    const auto range = [samples](Member member) {
        const auto [least, most] = std::ranges::minmax(samples, {}, member);
        return *(most.*member) - *(least.*member);
    };
    const HeatSample first = meansOf(samples.first(samples.size() / 2));
    const HeatSample second = meansOf(samples.last(samples.size() / 2));
    return range(&HeatSample::watts) <= kEvenWatts * *means.watts &&
           range(&HeatSample::flow) <= kEvenFlow &&
           std::abs(*second.die - *first.die) <= kEvenDie &&
           std::abs(*second.sink - *first.sink) <= kEvenSink &&
           *means.die - *means.room >= kLeastRise;
}

}  // namespace

HeatSample heatSample(const Snapshot& snapshot, std::span<const FanTarget> targets,
                      CurveSensor die) {
    HeatSample sample;
    sample.date = snapshot.date;
    sample.die = temperature(die, snapshot);
    sample.load = snapshot.cpuUsage;
    sample.sink =
        pick(snapshot.sensors, &SensorReading::celsius, kSinkKeys, kSinkPart, sample.sensors);
    sample.room =
        pick(snapshot.sensors, &SensorReading::celsius, kRoomKeys, kRoomPart, sample.sensors);
    if (snapshot.additionalSensors) {
        sample.watts = pick(*snapshot.additionalSensors, &HardwareSensorReading::value, kPowerKeys,
                            kPowerPart, sample.sensors);
    }
    const auto count = static_cast<double>(snapshot.fans.size());
    double rpm = 0, flow = 0, asked = 0;
    for (const FanReading& fan : snapshot.fans) {
        const double full = fan.maximum.value_or(0);
        const auto target = std::ranges::find(targets, fan.id, &FanTarget::id);
        const double share = full > 0 ? fan.rpm.value_or(0) / full : 0;
        rpm += fan.rpm.value_or(std::numeric_limits<double>::quiet_NaN()) / count;
        flow += share / count;
        asked += (full > 0 && target != targets.end() ? target->rpm / full : share) / count;
    }
    sample.rpm = snapshot.fans.empty() ? std::nullopt : ifFinite(rpm);
    sample.flow = flow;
    sample.asked = asked;
    return sample;
}

void HeatTrend::add(const HeatSample& given) {
    const std::optional<Date> before = clock_.last();
    const auto step = clock_.advance(given.date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    if (before && dayOf(*before) != dayOf(given.date)) {
        finishDay();
    }
    const auto sample = completed(given);
    if (!sample || step != ObservationClock::Step::continues) {
        window_.clear();
        turning_.reset();
    }
    if (!sample) {
        return;
    }
    if (sample->sensors != record_.sensors) {
        restart();
        record_.sensors = sample->sensors;
    }
    if (window_.size() < kMostSamples) {
        window_.push_back(*sample);
    }
    if (sample->date - window_.front().date >= kWindowSeconds) {
        finishWindow();
    }
}

void HeatTrend::finishWindow() {
    const auto samples = std::exchange(window_, {});
    const HeatSample means = meansOf(samples);
    turning_.reset();
    if (!isSteady(samples, means)) {
        return;
    }
    if (std::abs(*means.flow - *means.asked) > kSameFlow) {
        judgeFans(means);
    } else if (!lastKept_ || std::abs(means.date - *lastKept_) >= kKeptEverySeconds) {
        lastKept_ = means.date;
        today_.push_back({dayOf(means.date), (*means.die - *means.sink) / *means.watts,
                          toAir(means, *means.flow), *means.watts});
    }
}

void HeatTrend::judgeFans(const HeatSample& means) {
    if (record_.days.empty()) {
        return;
    }
    const std::size_t recent = std::min<std::size_t>(record_.days.size(), kWindowDays);
    const double usual = medians(std::span(record_.days).last(recent)).toAir;
    const double asAsked = std::abs(std::log(toAir(means, *means.asked) / usual));
    const double asSeen = std::abs(std::log(toAir(means, *means.flow) / usual));
    const auto [better, worse] = std::minmax(asAsked, asSeen);
    if (better <= kFits && worse >= std::max(kClearlyNot, kClearlyTimes * better)) {
        turning_ = asAsked < asSeen;
    }
}

void HeatTrend::finishDay() {
    auto windows = std::exchange(today_, {});
    if (windows.empty()) {
        return;
    }
    const double most = std::ranges::max(windows, {}, &HeatDay::watts).watts;
    std::erase_if(windows, [most](const HeatDay& it) { return it.watts < kLoadedShare * most; });
    if (windows.size() >= kLeastWindows) {
        addDay(medians(windows));
    }
}

void HeatTrend::addDay(const HeatDay& day) {
    auto& days = record_.days;
    std::erase_if(days, [&day](const HeatDay& other) { return other.day >= day.day; });
    const int before = days.empty() ? day.day : days.back().day;
    days.push_back(day);
    if (days.size() > kMostDays) {
        days.erase(days.begin());
    }
    if (record_.baseline) {
        const int complete = record_.baseline->day;
        const bool isNewWeek = (day.day - complete) / kCheckDays > (before - complete) / kCheckDays;
        if (isNewWeek && day.day - complete >= kWindowDays) {
            check();
        }
    } else if (day.day - days.front().day >= kBaselineDays - 1 && days.size() >= kBaselineValid) {
        record_.baseline = medians(days);
        record_.baselineFrom = days.front().day;
    }
}

void HeatTrend::check() {
    const HeatDay& baseline = *record_.baseline;
    const int today = record_.days.back().day;
    const auto first = std::ranges::find_if(
        record_.days, [today](const HeatDay& day) { return day.day > today - kWindowDays; });
    const std::span<const HeatDay> window(first, record_.days.end());
    if (window.size() < kWindowValid) {
        return;
    }
    const HeatDay now = medians(window);
    const auto judge = [&](Evidence& hotter, double HeatDay::*way, double allowance) {
        const double usual = baseline.*way * baseline.watts;
        const double kelvin = now.*way * baseline.watts - usual;
        if (kelvin >= std::max(kLimitKelvin, kLimitShare * usual) + allowance) {
            hotter.see(1, kChecks, dateOf(today), {}, kelvin);
        } else {
            hotter = {};
        }
    };
    judge(record_.toSink, &HeatDay::dieToSink, 0);
    judge(record_.toAir, &HeatDay::toAir, hasPart(record_.sensors, kRoomPart) ? 0 : kSeasonKelvin);
}

void HeatTrend::restart() {
    std::string sensors = std::move(record_.sensors);
    record_ = {};
    record_.sensors = std::move(sensors);
    today_.clear();
    window_.clear();
}

std::vector<HealthFinding> HeatTrend::findings() const {
    std::vector<HealthFinding> list;
    const auto tell = [&](HealthKind kind, const Evidence& hotter, const char* part,
                          DiagnosticSeverity severity) {
        if (hotter.raised && record_.baseline) {
            list.push_back({kind, severity, DiagnosticConfidence::possible, part, {}, hotter});
            list.back().baseline = {dateOf(record_.baselineFrom), dateOf(record_.baseline->day)};
            list.back().roomUnknown = severity == DiagnosticSeverity::information;
        }
    };
    const bool sink = hasPart(record_.sensors, kSinkPart);
    const bool room = hasPart(record_.sensors, kRoomPart);
    tell(HealthKind::hotterToSink, record_.toSink, "sink", DiagnosticSeverity::warning);
    tell(sink ? HealthKind::hotterToAir : HealthKind::hotterOverall, record_.toAir, "air",
         room ? DiagnosticSeverity::warning : DiagnosticSeverity::information);
    return list;
}

}  // namespace ferovane
