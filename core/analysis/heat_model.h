// A small heat model of one machine, fitted from days that a monitor recorded: die, heat sink and
// the air around it. Pure: no clock, no files; everything may be called from any thread.
//
// What heats the die passes on to the sink, and from there to the air, the better the faster the
// fans turn. Such a model is small enough to be found from days of ordinary use, and it is believed
// only when it has foretold a day that it had not seen.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "core/analysis/heat_trend.h"

namespace ferovane {

// A recorded day at even steps.
struct RecordedDay {
    static constexpr double kStepSeconds = 2;  // a round of a curve lease
    static constexpr double kLongestGapSeconds = 30;
    static constexpr double kShortestStretchSeconds = 600;  // that is worth following

    struct Step {
        double watts = 0, load = 0, die = 0, sink = 0, rpm = 0;
        bool begins = false;  // what came before is not known
    };

    std::vector<Step> steps;  // 2.4 MB for 24 hours
    bool hasWatts = false, hasLoad = false;

    double hours() const { return static_cast<double>(steps.size()) * kStepSeconds / 3600; }

    // From samples in the order of time; one that goes back or leaves a longer gap begins anew.
    // Watts and load are told when nine samples of ten have them. A sample that lacks what is told,
    // or die, sink or fan speed, does not count.
    static RecordedDay from(std::span<const HeatSample> samples);
};

// Rated, in rpm: the mean of the fans.
struct FanRange {
    double minimum = 0, maximum = 0;
};

// Heat is in watts, or in percent of load where no power was recorded. A die follows it faster than
// samples a step apart could tell: it is taken to need kDieSeconds.
struct HeatModel {
    static constexpr double kDieSeconds = 2;

    FanRange range;
    bool fromLoad = false;
    double flowExponent = 0.7;  // one machine does not tell 0.5 from 1
    double dieResistance = 0;   // K per unit of heat, from die to sink
    double dieOffset = 0;       // K between the two without any heat that is told
    double hiddenHeat = 0;      // which that shows, and the sink has to carry off, too
    double sinkResistance = 0;  // K per unit of heat, from sink to air at full flow
    double sinkSeconds = 30;    // the sink's time constant at full flow
    double movedShare = 0.5;    // of its conductance there, that is gone without any flow

    // Of the air, and the conductance from sink to air that it makes: 1 at the rated maximum.
    double flow(double rpm) const;
    double cooling(double flow) const { return 1 - movedShare + movedShare * flow; }
};

// Model minus reading in K, over a day in which the model never looks at a temperature.
struct HeatErrors {
    static constexpr double kMostDieRms = 2.5, kMostSinkRms = 1.5, kMostBias = 1;

    double dieRms = 0, sinkRms = 0, dieBias = 0, sinkBias = 0;
};

// A day as a model follows it, in a room that is as much warmer or cooler as fits best.
struct HeatTrack {
    std::vector<double> aboveRoom;  // K, of the sink, by step
    HeatErrors errors;
};
HeatTrack follow(const HeatModel& model, const RecordedDay& day);

// Why there is no model, in the order in which it is looked for.
enum class HeatRefusal {
    fanRange,       // the rated speeds make no range
    tooFewDays,     // with enough in each of them
    noPower,        // neither watts nor load in all of them
    fanNotVaried,   // a good fit would then be no good prediction
    heatNotVaried,  // idle or busy all the time
    fitInvalid,     // nothing physical describes these readings
    notAccurate,    // the day held out was not foretold
    fanUnclear      // what cools could be the fans or less heat
};
std::string_view title(HeatRefusal refusal);

struct HeatFit {
    static constexpr std::size_t kFewestDays = 3;  // besides the one that is held out
    static constexpr double kFewestHours = 1;      // in a day that counts
    static constexpr double kLeastFanSpreadRpm = 1500, kLeastFanSpreadOfRange = 0.25;
    static constexpr double kLeastHeatRatio = 3;  // of the 90th to the 10th percentile

    // By the watts, or by the load where there are none or they are no good. The last of the days
    // is held out. The same days give the same fit.
    static HeatFit of(std::span<const RecordedDay> days, const FanRange& range);

    // With one, nothing else counts but the errors; there is one until of() has found a model.
    std::optional<HeatRefusal> refusal = HeatRefusal::tooFewDays;
    HeatModel model = {};
    // Of days drawn from the same ones, and with what one machine does not tell taken otherwise:
    // how far they lie apart shows how much the days really say.
    std::vector<HeatModel> refits = {};
    HeatErrors errors = {};           // on the day held out
    double slowest = 0, fastest = 0;  // rpm that the model has seen, but for the rarest
};

}  // namespace ferovane
