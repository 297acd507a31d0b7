#include "core/analysis/heat_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>
#include <utility>

#include "core/analysis/heat_trend.h"

namespace ferovane {
namespace {

constexpr double kMostlyPresent = 0.9;  // of the samples
constexpr double kLow = 0.1, kHigh = 0.9;
constexpr double kFarthestDate = 1e12;  // seconds; beyond it a step is lost in rounding
constexpr double kRarest = 0.01;        // of the speeds seen, at either end

constexpr double kOrdinaryRoom = 23;      // degrees Celsius
constexpr std::size_t kRoomSteps = 1800;  // an hour, in which a room stays as it is

// Of the sink's time constant, as a factor, and of the share that the fans move.
constexpr double kWidestSearch = 0.5, kRefitSearch = 0.1, kFinestSearch = 0.005;
constexpr JsonRange kSinkSeconds{4, 1200};
constexpr JsonRange kMovedShares{0.01, 0.99};
constexpr double kLeastMovedShare = 0.3;  // that is no accident
// Of the die's resistance: a sensor that takes less part in the die's heat is on no sink of it.
constexpr double kLeastSinkShare = 0.25;

constexpr std::size_t kRefits = 18;  // two draws of days with each of these
constexpr std::array kExponents{0.5, 0.7, 1.0};
constexpr std::array kHiddenShares{0.5, 1.0, 1.5};

using Step = RecordedDay::Step;
using Days = std::vector<const RecordedDay*>;  // one may count several times

std::optional<double> finiteIn(const std::optional<double>& value) {
    return value && std::isfinite(*value) ? value : std::nullopt;
}

bool areMostlyPresent(std::span<const RecordedSample> samples,
                      std::optional<double> RecordedSample::*member) {
    const auto count = std::count_if(samples.begin(), samples.end(), [&](const RecordedSample& it) {
        return finiteIn(it.*member).has_value();
    });
    return count > 0 &&
           static_cast<double>(count) >= kMostlyPresent * static_cast<double>(samples.size());
}

Step between(const Step& from, const Step& to, double part) {
    const auto mix = [part](double a, double b) { return a + (b - a) * part; };
    return {mix(from.watts, to.watts), mix(from.load, to.load),       mix(from.die, to.die),
            mix(from.sink, to.sink),   mix(from.ambient, to.ambient), mix(from.rpm, to.rpm)};
}

// ---- The sink of a given model -----------------------------------------------------------------

// What a step of a day does to the sink.
struct Drive {
    double heat;  // that has passed the die, as far as it is told
    double flow, sink, die, ambient;
    bool begins;
};

std::vector<Drive> drivesOf(const RecordedDay& day, const HeatModel& model) {
    const double share = 1 - std::exp(-RecordedDay::kStepSeconds / HeatModel::kDieSeconds);
    const double room = day.hasAmbient ? 0 : kOrdinaryRoom;
    std::vector<Drive> drives;
    drives.reserve(day.steps.size());
    double heat = 0;
    for (const Step& step : day.steps) {
        const double told = model.fromLoad ? step.load : step.watts;
        heat = step.begins ? told : heat + (told - heat) * share;
        drives.push_back(
            {heat, model.flow(step.rpm), step.sink, step.die, step.ambient + room, step.begins});
    }
    return drives;
}

double dieAbove(const HeatModel& model, const Drive& drive) {
    return model.dieResistance * drive.heat + model.dieOffset;
}

// The sink's temperature as the sum of what it is made of. Steps are implicit, so that they are
// stable for every time constant.
struct Sink {
    double air = 0;   // as if it were not heated
    double heat = 0;  // what the heat adds, per resistance
    double room = 0;  // what each K adds by which the room is warmer, 0 to 1

    void advance(const HeatModel& model, const Drive& drive) {
        const double inertia = model.sinkSeconds / RecordedDay::kStepSeconds;
        const double cooling = model.cooling(drive.flow);
        const double whole = inertia + cooling;
        air = (inertia * air + cooling * drive.ambient) / whole;
        heat = (inertia * heat + drive.heat + model.hiddenHeat) / whole;
        room = (inertia * room + cooling) / whole;
    }
};

// The sink as its sensor and, through the die, the die's sensor tell.
double sinkRead(const HeatModel& model, const Drive& drive) {
    return (drive.sink + drive.die - dieAbove(model, drive)) / 2;
}

// ---- The fit -----------------------------------------------------------------------------------

// An hour at most with a room of its own. Fans run faster in a warmer room: one that drifts
// unnoticed would make them look useless.
using Stretch = std::vector<Drive>;

std::vector<Stretch> stretchesOf(const Days& days, const HeatModel& model) {
    std::vector<Stretch> stretches;
    for (const RecordedDay* day : days) {
        for (const Drive& drive : drivesOf(*day, model)) {
            if (drive.begins || stretches.back().size() >= kRoomSteps) {
                stretches.emplace_back();
            }
            stretches.back().push_back(drive);
        }
    }
    return stretches;
}

// The straight line between heat and what the die is above the sink. What is left without heat is
// taken, in this share, for heat that nobody tells.
void fitDie(const std::vector<Stretch>& stretches, double hiddenShare, HeatModel& model) {
    double count = 0, heat = 0, above = 0, heatHeat = 0, heatAbove = 0;
    for (const Stretch& stretch : stretches) {
        for (const Drive& drive : stretch) {
            ++count;
            heat += drive.heat;
            above += drive.die - drive.sink;
            heatHeat += drive.heat * drive.heat;
            heatAbove += drive.heat * (drive.die - drive.sink);
        }
    }
    model.dieResistance = (heatAbove - heat * above / count) / (heatHeat - heat * heat / count);
    model.dieOffset = (above - model.dieResistance * heat) / count;
    model.hiddenHeat = hiddenShare * model.dieOffset / model.dieResistance;
}

// The resistance from sink to air with which the free run over all stretches, each in the room that
// suits it best, is closest to what was read; and the sum of squares that is left.
double fitSink(const std::vector<Stretch>& stretches, HeatModel& model) {
    double readRead = 0, heatRead = 0, heatHeat = 0;
    for (const Stretch& stretch : stretches) {
        Sink sink{stretch.front().sink};
        double rr = 0, hr = 0, hh = 0, roomRead = 0, roomHeat = 0, roomRoom = 0;
        for (const Drive& drive : stretch) {
            sink.advance(model, drive);
            const double read = sinkRead(model, drive) - sink.air;
            rr += read * read;
            hr += sink.heat * read;
            hh += sink.heat * sink.heat;
            roomRead += sink.room * read;
            roomHeat += sink.room * sink.heat;
            roomRoom += sink.room * sink.room;
        }
        readRead += rr - roomRead * roomRead / roomRoom;
        heatRead += hr - roomHeat * roomRead / roomRoom;
        heatHeat += hh - roomHeat * roomHeat / roomRoom;
    }
    model.sinkResistance = heatRead / heatHeat;
    return readRead - model.sinkResistance * heatRead;
}

// Everything that is linear is solved for; for the two that are not, neighbours at `reach` are
// tried until none is better, then closer ones.
HeatModel fitted(const Days& days, HeatModel model, double hiddenShare, double reach) {
    const std::vector<Stretch> stretches = stretchesOf(days, model);
    fitDie(stretches, hiddenShare, model);
    double error = fitSink(stretches, model);
    while (reach > kFinestSearch) {
        bool found = false;
        for (const auto& [slower, moved] :
             {std::pair{reach, 0.0}, {-reach, 0.0}, {0.0, reach}, {0.0, -reach}}) {
            HeatModel next = model;
            next.sinkSeconds = std::clamp(model.sinkSeconds * std::exp(slower), kSinkSeconds.least,
                                          kSinkSeconds.most);
            next.movedShare =
                std::clamp(model.movedShare + moved, kMovedShares.least, kMovedShares.most);
            const double nextError = fitSink(stretches, next);
            if (nextError < error) {
                model = next;
                error = nextError;
                found = true;
            }
        }
        reach = found ? reach : reach / 2;
    }
    return model;
}

// Whether something of metal between a chip and the air of its fans could be like this.
bool isPhysical(const HeatModel& model) {
    return model.dieResistance > 0 &&
           model.sinkResistance >= kLeastSinkShare * model.dieResistance &&
           model.sinkSeconds > kSinkSeconds.least && model.sinkSeconds < kSinkSeconds.most;
}

// Of enough days, that have what it takes. The last one is held out.
HeatFit fitBy(Days days, const FanRange& range, bool fromLoad) {
    const RecordedDay& heldOut = *days.back();
    days.pop_back();
    HeatFit fit;
    fit.model.range = range;
    fit.model.fromLoad = fromLoad;
    const auto refused = [&fit](HeatRefusal refusal) {
        fit.refusal = refusal;
        return fit;
    };
    std::vector<double> told, speeds;
    for (const RecordedDay* day : days) {
        for (const Step& step : day->steps) {
            told.push_back(fromLoad ? step.load : step.watts);
            speeds.push_back(step.rpm);
        }
    }
    fit.slowest = quantile(speeds, kRarest);
    fit.fastest = quantile(speeds, 1 - kRarest);
    const double spread = quantile(speeds, kHigh) - quantile(speeds, kLow);
    if (spread < HeatFit::kLeastFanSpreadRpm &&
        spread < HeatFit::kLeastFanSpreadOfRange * (range.maximum - range.minimum)) {
        return refused(HeatRefusal::fanNotVaried);
    }
    fit.model = fitted(days, fit.model, 1, kWidestSearch);
    // What a machine draws beside its die is not heat of the die.
    const double beside = std::min(fit.model.hiddenHeat, 0.0);
    const double least = quantile(told, kLow) + beside, most = quantile(told, kHigh) + beside;
    if (!(most >= HeatFit::kLeastHeatRatio * least)) {
        return refused(HeatRefusal::heatNotVaried);
    }
    if (!isPhysical(fit.model) || least < 0) {
        return refused(HeatRefusal::fitInvalid);
    }
    fit.errors = follow(fit.model, heldOut).errors;
    if (!fit.errors.admissible()) {
        return refused(HeatRefusal::notAccurate);
    }
    std::minstd_rand random;
    for (std::size_t i = 0; i < kRefits; ++i) {
        Days drawn;
        for (std::size_t day = 0; day < days.size(); ++day) {
            drawn.push_back(days[random() % days.size()]);
        }
        HeatModel other = fit.model;
        other.flowExponent = kExponents[i % kExponents.size()];
        const double hidden = kHiddenShares[i / kExponents.size() % kHiddenShares.size()];
        fit.refits.push_back(fitted(drawn, other, hidden, kRefitSearch));
    }
    const bool clear = std::all_of(fit.refits.begin(), fit.refits.end(), [](const HeatModel& it) {
        return it.movedShare >= kLeastMovedShare && isPhysical(it);
    });
    return clear ? fit : refused(HeatRefusal::fanUnclear);
}

}  // namespace

std::string_view title(HeatRefusal refusal) {
    constexpr std::array<std::string_view, 8> kTitles{
        "风扇额定转速未知，无法建立热模型",
        "记录的天数不足，无法建立热模型",
        "没有连续的功耗或负载记录，无法建立热模型",
        "风扇转速变化不足，无法预测其他曲线",
        "功耗变化不足，无法建立热模型",
        "温度记录与功耗不符，请检查传感器",
        "热模型未能重现一天的温度，不予采用",
        "无法区分风扇与负载的作用，无法预测其他曲线",
    };
    return kTitles[static_cast<std::size_t>(refusal)];
}

double quantile(std::vector<double> values, double part) {
    const auto at = values.begin() + std::lround(part * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

RecordedSample recordedSample(const Snapshot& snapshot, CurveSensor sensor) {
    const HeatSample heat = heatSample(snapshot, {});
    RecordedSample sample{
        snapshot.date, heat.watts, snapshot.cpuUsage, temperature(sensor, snapshot), heat.sink,
        heat.room,     {}};
    double sum = 0;
    for (const FanReading& fan : snapshot.fans) {
        sum += fan.rpm.value_or(std::numeric_limits<double>::quiet_NaN());
    }
    sample.rpm = sum / static_cast<double>(snapshot.fans.size());
    return sample;
}

RecordedDay RecordedDay::from(std::span<const RecordedSample> samples) {
    RecordedDay day;
    day.hasWatts = areMostlyPresent(samples, &RecordedSample::watts);
    day.hasLoad = areMostlyPresent(samples, &RecordedSample::load);
    day.hasAmbient = areMostlyPresent(samples, &RecordedSample::ambient);
    std::optional<Step> last;
    Date lastDate, next;  // when the last was read, and when the next step is due
    std::size_t begin = 0;
    const auto endStretch = [&] {
        if (static_cast<double>(day.steps.size() - begin) * kStepSeconds <
            kShortestStretchSeconds) {
            day.steps.resize(begin);
        }
        begin = day.steps.size();
    };
    for (const RecordedSample& sample : samples) {
        const auto watts = finiteIn(sample.watts), load = finiteIn(sample.load);
        const auto die = finiteIn(sample.die), sink = finiteIn(sample.sink);
        const auto ambient = finiteIn(sample.ambient), rpm = finiteIn(sample.rpm);
        if (!(std::abs(sample.date.secondsSinceReference) < kFarthestDate)) {
            continue;
        }
        const double passed = last ? sample.date - lastDate : RecordedDay::kLongestGapSeconds + 1;
        if (!die || !sink || !rpm || (day.hasWatts && !watts) || (day.hasLoad && !load) ||
            (day.hasAmbient && !ambient) || passed == 0 || !std::isfinite(passed)) {
            continue;
        }
        const Step step{watts.value_or(0),   load.value_or(0),   *die, *sink,
                        ambient.value_or(0), std::max(*rpm, 0.0)};
        if (passed < 0 || passed > kLongestGapSeconds) {
            endStretch();
            next = sample.date;
        }
        for (; next <= sample.date; next = next + kStepSeconds) {
            const bool begins = day.steps.size() == begin;
            day.steps.push_back(begins ? step : between(*last, step, (next - lastDate) / passed));
            day.steps.back().begins = begins;
        }
        last = step;
        lastDate = sample.date;
    }
    endStretch();
    return day;
}

double HeatModel::flow(double rpm) const {
    return std::pow(rpm / range.maximum, flowExponent);
}

bool HeatErrors::admissible() const {
    return dieRms <= kMostDieRms && sinkRms <= kMostSinkRms && std::abs(dieBias) <= kMostBias &&
           std::abs(sinkBias) <= kMostBias;
}

HeatTrack follow(const HeatModel& model, const RecordedDay& day) {
    const std::vector<Drive> drives = drivesOf(day, model);
    std::vector<Sink> sinks;
    Sink sink;
    double off = 0, weight = 0;
    for (const Drive& drive : drives) {
        if (drive.begins) {
            sink = {drive.sink};
        }
        sink.advance(model, drive);
        sinks.push_back(sink);
        off += sink.room * (sinkRead(model, drive) - sink.air - model.sinkResistance * sink.heat);
        weight += sink.room * sink.room;
    }
    const double room = weight > 0 ? off / weight : 0;
    HeatTrack track;
    auto& [dieRms, sinkRms, dieBias, sinkBias] = track.errors;
    const auto count = static_cast<double>(drives.size());
    for (std::size_t i = 0; i < drives.size(); ++i) {
        const double celsius =
            sinks[i].air + model.sinkResistance * sinks[i].heat + room * sinks[i].room;
        track.aboveAmbient.push_back(celsius - drives[i].ambient - room);
        const double sinkError = celsius - drives[i].sink;
        const double dieError = celsius + dieAbove(model, drives[i]) - drives[i].die;
        dieBias += dieError / count;
        sinkBias += sinkError / count;
        dieRms += dieError * dieError / count;
        sinkRms += sinkError * sinkError / count;
    }
    dieRms = std::sqrt(dieRms);
    sinkRms = std::sqrt(sinkRms);
    return track;
}

HeatFit HeatFit::of(std::span<const RecordedDay> all, const FanRange& range) {
    if (!(range.minimum >= 0 && range.maximum > range.minimum && std::isfinite(range.maximum))) {
        return {HeatRefusal::fanRange};
    }
    Days days;
    for (const RecordedDay& day : all) {
        if (day.hours() >= kFewestHours) {
            days.push_back(&day);
        }
    }
    if (days.size() <= kFewestDays) {
        return {HeatRefusal::tooFewDays};
    }
    const auto inAll = [&days](bool RecordedDay::*has) {
        return std::all_of(days.begin(), days.end(), [has](auto* day) { return day->*has; });
    };
    HeatFit fit{HeatRefusal::noPower};
    if (inAll(&RecordedDay::hasWatts)) {
        fit = fitBy(days, range, false);
    }
    if (fit.refusal && inAll(&RecordedDay::hasLoad)) {
        const HeatFit byLoad = fitBy(days, range, true);
        fit = fit.refusal == HeatRefusal::noPower || !byLoad.refusal ? byLoad : fit;
    }
    return fit;
}

}  // namespace ferovane
