#include "core/analysis/heat_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <utility>

#include "core/analysis/numbers.h"

namespace ferovane {
namespace {

constexpr double kMostlyPresent = 0.9;  // of the samples
constexpr double kLow = 0.1, kHigh = 0.9;
constexpr double kFarthestDate = 1e12;  // seconds; beyond it a step is lost in rounding
constexpr double kRarest = 0.01;        // of the speeds seen, at either end

constexpr double kOrdinaryRoom = 23;      // degrees Celsius, which a fit corrects
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

using Days = std::vector<const RecordedDay*>;  // one may count several times

// ---- Samples as even steps ---------------------------------------------------------------------

using Step = RecordedDay::Step;

struct Quantity {
    std::optional<double> HeatSample::*read;
    double Step::*kept;
    bool RecordedDay::*told;  // null: a step is none without it
};
constexpr std::array kQuantities{
    Quantity{&HeatSample::watts, &Step::watts, &RecordedDay::hasWatts},
    Quantity{&HeatSample::load, &Step::load, &RecordedDay::hasLoad},
    Quantity{&HeatSample::die, &Step::die, nullptr},
    Quantity{&HeatSample::sink, &Step::sink, nullptr},
    Quantity{&HeatSample::rpm, &Step::rpm, nullptr},
};

bool isMostlyPresent(const Quantity& quantity, std::span<const HeatSample> samples) {
    const auto count = std::ranges::count_if(
        samples, [&](const HeatSample& it) { return ifFinite(it.*quantity.read).has_value(); });
    return count > 0 &&
           static_cast<double>(count) >= kMostlyPresent * static_cast<double>(samples.size());
}

// What the day tells of a sample; absent when that is not complete.
std::optional<Step> stepOf(const RecordedDay& day, const HeatSample& sample) {
    Step step;
    for (const Quantity& quantity : kQuantities) {
        if (quantity.told == nullptr || day.*quantity.told) {
            const auto value = ifFinite(sample.*quantity.read);
            if (!value) {
                return std::nullopt;
            }
            step.*quantity.kept = *value;
        }
    }
    step.rpm = std::max(step.rpm, 0.0);
    return step;
}

Step between(const Step& from, const Step& to, double part) {
    Step step;
    for (const Quantity& quantity : kQuantities) {
        const double first = from.*quantity.kept;
        step.*quantity.kept = first + (to.*quantity.kept - first) * part;
    }
    return step;
}

// ---- The sink of a given model -----------------------------------------------------------------

// What a step does to the sink.
struct Drive {
    double heat;  // that has passed the die, as far as it is told
    double flow, sink, die;
    bool begins;
};
using Stretch = std::vector<Drive>;  // in a room that stays as much warmer or cooler

Stretch drivesOf(const RecordedDay& day, const HeatModel& model) {
    const double share = 1 - std::exp(-RecordedDay::kStepSeconds / HeatModel::kDieSeconds);
    Stretch drives;
    drives.reserve(day.steps.size());
    double heat = 0;
    for (const Step& step : day.steps) {
        const bool begins = step.begins || drives.empty();
        const double told = model.fromLoad ? step.load : step.watts;
        heat = begins ? told : heat + (told - heat) * share;
        drives.push_back({heat, model.flow(step.rpm), step.sink, step.die, begins});
    }
    return drives;
}

double dieAbove(const HeatModel& model, const Drive& drive) {
    return model.dieResistance * drive.heat + model.dieOffset;
}

// The sink's temperature as the sum of what it is made of. Steps are implicit, so that they are
// stable for every time constant.
struct Sink {
    double air = 0;   // as if it were not heated, in an ordinary room
    double heat = 0;  // what the heat adds, per resistance
    double room = 0;  // what each K adds by which the room is warmer, 0 to 1

    void advance(const HeatModel& model, const Drive& drive) {
        if (drive.begins) {
            *this = {drive.sink};
        }
        const double inertia = model.sinkSeconds / RecordedDay::kStepSeconds;
        const double cooling = model.cooling(drive.flow);
        const double whole = inertia + cooling;
        air = (inertia * air + cooling * kOrdinaryRoom) / whole;
        heat = (inertia * heat + drive.heat + model.hiddenHeat) / whole;
        room = (inertia * room + cooling) / whole;
    }
};

// Of a free run: the products of what was read above the air, of what heat and room add.
struct Products {
    double readRead = 0, heatRead = 0, heatHeat = 0, roomRead = 0, roomHeat = 0, roomRoom = 0;

    // In K, the room that suits a run best.
    double room(double resistance) const {
        return roomRoom > 0 ? (roomRead - resistance * roomHeat) / roomRoom : 0;
    }
};

Products productsOf(const HeatModel& model, const Stretch& stretch) {
    Products sum;
    Sink sink;
    for (const Drive& drive : stretch) {
        sink.advance(model, drive);
        // The sink as its sensor and, through the die, the die's sensor tell.
        const double read = (drive.sink + drive.die - dieAbove(model, drive)) / 2 - sink.air;
        sum.readRead += read * read;
        sum.heatRead += sink.heat * read;
        sum.heatHeat += sink.heat * sink.heat;
        sum.roomRead += sink.room * read;
        sum.roomHeat += sink.room * sink.heat;
        sum.roomRoom += sink.room * sink.room;
    }
    return sum;
}

// ---- The fit -----------------------------------------------------------------------------------

// An hour at most has a room of its own. Fans run faster in a warmer room: one that drifts
// unnoticed would make them look useless.
std::vector<Stretch> stretchesOf(const Days& days, const HeatModel& model) {
    std::vector<Stretch> stretches;
    for (const RecordedDay* day : days) {
        for (Drive drive : drivesOf(*day, model)) {
            drive.begins = drive.begins || stretches.back().size() >= kRoomSteps;
            if (drive.begins) {
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
        const Products sum = productsOf(model, stretch);
        readRead += sum.readRead - sum.roomRead * sum.roomRead / sum.roomRoom;
        heatRead += sum.heatRead - sum.roomHeat * sum.roomRead / sum.roomRoom;
        heatHeat += sum.heatHeat - sum.roomHeat * sum.roomHeat / sum.roomRoom;
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

bool isAdmissible(const HeatErrors& errors) {
    return errors.dieRms <= HeatErrors::kMostDieRms && errors.sinkRms <= HeatErrors::kMostSinkRms &&
           std::abs(errors.dieBias) <= HeatErrors::kMostBias &&
           std::abs(errors.sinkBias) <= HeatErrors::kMostBias;
}

std::vector<double> valuesOf(const Days& days, double Step::*member) {
    std::vector<double> values;
    for (const RecordedDay* day : days) {
        for (const Step& step : day->steps) {
            values.push_back(step.*member);
        }
    }
    return values;
}

// Fits to days drawn from these.
std::vector<HeatModel> refitsOf(const Days& days, const HeatModel& model) {
    std::vector<HeatModel> refits;
    std::minstd_rand random;
    for (std::size_t i = 0; i < kRefits; ++i) {
        Days drawn;
        for (std::size_t day = 0; day < days.size(); ++day) {
            drawn.push_back(days[random() % days.size()]);
        }
        HeatModel other = model;
        other.flowExponent = kExponents[i % kExponents.size()];
        const double hidden = kHiddenShares[i / kExponents.size() % kHiddenShares.size()];
        refits.push_back(fitted(drawn, other, hidden, kRefitSearch));
    }
    return refits;
}

// Of enough days, that have what it takes. The last one is held out.
HeatFit fitBy(Days days, const FanRange& range, bool fromLoad) {
    const RecordedDay& heldOut = *days.back();
    days.pop_back();
    HeatFit fit;
    const auto refused = [&fit](HeatRefusal refusal) {
        fit.refusal = refusal;
        return fit;
    };
    const auto speeds = valuesOf(days, &Step::rpm);
    fit.slowest = quantile(speeds, kRarest);
    fit.fastest = quantile(speeds, 1 - kRarest);
    const double spread = quantile(speeds, kHigh) - quantile(speeds, kLow);
    if (spread < HeatFit::kLeastFanSpreadRpm &&
        spread < HeatFit::kLeastFanSpreadOfRange * (range.maximum - range.minimum)) {
        return refused(HeatRefusal::fanNotVaried);
    }
    fit.model = fitted(days, {range, fromLoad}, 1, kWidestSearch);
    // What a machine draws beside its die is not heat of the die.
    const double beside = std::min(fit.model.hiddenHeat, 0.0);
    const auto heat = valuesOf(days, fromLoad ? &Step::load : &Step::watts);
    const double least = quantile(heat, kLow) + beside, most = quantile(heat, kHigh) + beside;
    if (!(most >= HeatFit::kLeastHeatRatio * least)) {
        return refused(HeatRefusal::heatNotVaried);
    }
    if (!isPhysical(fit.model) || least < 0) {
        return refused(HeatRefusal::fitInvalid);
    }
    fit.errors = follow(fit.model, heldOut).errors;
    if (!isAdmissible(fit.errors)) {
        return refused(HeatRefusal::notAccurate);
    }
    fit.refits = refitsOf(days, fit.model);
    const bool clear = std::ranges::all_of(fit.refits, [](const HeatModel& it) {
        return it.movedShare >= kLeastMovedShare && isPhysical(it);
    });
    if (!clear) {
        return refused(HeatRefusal::fanUnclear);
    }
    fit.refusal.reset();
    return fit;
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

RecordedDay RecordedDay::from(std::span<const HeatSample> samples) {
    RecordedDay day;
    for (const Quantity& quantity : kQuantities) {
        if (quantity.told != nullptr) {
            day.*quantity.told = isMostlyPresent(quantity, samples);
        }
    }
    std::optional<Step> last;
    Date lastDate, next;  // when the last was read, and when the next step is due
    std::size_t begin = 0;
    const auto endStretch = [&day, &begin] {
        if (static_cast<double>(day.steps.size() - begin) * kStepSeconds <
            kShortestStretchSeconds) {
            day.steps.resize(begin);
        }
        begin = day.steps.size();
    };
    for (const HeatSample& sample : samples) {
        const auto step = stepOf(day, sample);
        if (!step || !(std::abs(sample.date.secondsSinceReference) < kFarthestDate) ||
            (last && sample.date == lastDate)) {
            continue;
        }
        const double passed = sample.date - lastDate;
        const bool begins = !last || passed < 0 || passed > kLongestGapSeconds;
        if (begins) {
            endStretch();
            next = sample.date;
        }
        for (; next <= sample.date; next = next + kStepSeconds) {
            day.steps.push_back(begins ? *step : between(*last, *step, (next - lastDate) / passed));
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

HeatTrack follow(const HeatModel& model, const RecordedDay& day) {
    const Stretch drives = drivesOf(day, model);
    const double room = productsOf(model, drives).room(model.sinkResistance);
    HeatTrack track;
    auto& [dieRms, sinkRms, dieBias, sinkBias] = track.errors;
    const auto count = static_cast<double>(drives.size());
    Sink sink;
    for (const Drive& drive : drives) {
        sink.advance(model, drive);
        const double celsius = sink.air + model.sinkResistance * sink.heat + room * sink.room;
        track.aboveRoom.push_back(celsius - kOrdinaryRoom - room);
        const double sinkError = celsius - drive.sink;
        const double dieError = celsius + dieAbove(model, drive) - drive.die;
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
        return std::ranges::all_of(days, [has](const RecordedDay* day) { return day->*has; });
    };
    const bool watts = inAll(&RecordedDay::hasWatts);
    HeatFit fit = watts ? fitBy(days, range, false) : HeatFit{HeatRefusal::noPower};
    if (fit.refusal && inAll(&RecordedDay::hasLoad)) {
        HeatFit byLoad = fitBy(days, range, true);
        fit = watts && byLoad.refusal ? fit : std::move(byLoad);
    }
    return fit;
}

}  // namespace ferovane
