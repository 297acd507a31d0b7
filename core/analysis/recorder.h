// What a monitor saw lately, in full: for the question why the machine did that at three o'clock.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "core/analysis/diagnostic_report.h"
#include "core/analysis/heat_model.h"
#include "core/analysis/metric_histories.h"
#include "core/analysis/observation_clock.h"
#include "core/analysis/system_telemetry.h"
#include "core/fan/fan_curve.h"
#include "core/model/date.h"
#include "core/model/fan_target.h"
#include "core/model/json_codec.h"
#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"
#include "core/model/snapshot.h"

namespace ferovane {

// Figures at some moments, oldest first. NaN where there was none.
struct FigureTable {
    struct Column {
        std::string label;          // what a user reads, as last told; may be empty
        std::deque<double> values;  // one for each date

        static constexpr auto jsonFields() {
            return std::tuple{jsonField("label", &Column::label)};
        }
    };

    std::deque<Date> dates;
    std::map<std::string, Column> columns;  // by id

    // The row becomes the last. Rows that are more than `span` seconds older go, and so do the
    // oldest while there are more than `most` figures, and columns without any.
    void add(Date date, std::span<const MetricReading> row, double span, std::size_t most);
    void forgetFrom(Date date);

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("columns", &FigureTable::columns)};
    }
};

enum class RecordedEventKind { request, reply, findingCame, findingWent };

template <>
struct RawEnum<RecordedEventKind> {
    static constexpr std::array<RawCase<RecordedEventKind>, 4> cases{{
        {RecordedEventKind::request, "请求"},
        {RecordedEventKind::reply, "回复"},
        {RecordedEventKind::findingCame, "出现"},
        {RecordedEventKind::findingWent, "消失"},
    }};
};

struct RecordedEvent {
    Date date;
    RecordedEventKind kind = RecordedEventKind::request;
    std::string text;   // names nobody
    std::string names;  // an application, or what the user calls a mode; may be empty

    bool operator==(const RecordedEvent&) const = default;
    static constexpr auto jsonFields() {
        using R = RecordedEvent;
        return std::tuple{jsonField("date", &R::date), jsonField("kind", &R::kind),
                          jsonField("text", &R::text), jsonField("names", &R::names)};
    }
};

// Every figure of each snapshot, what was asked of a session and answered, and findings as they
// came and went. Beside it the day that a heat model is fitted from, in means of five seconds: they
// describe a die that jumps as well as samples every two do. Bounded by the constants below, about
// 5 MB. A plain value; dates count as ObservationClock says. One owner, no locking.
class Recorder {
public:
    static constexpr double kSeconds = 30 * 60;
    static constexpr std::size_t kMostFigures = 300'000;  // 160 a second; less time for more
    static constexpr std::size_t kMostEventBytes = 256 * 1024;
    static constexpr std::size_t kMostTextBytes = 4096;  // of one event; what is longer is cut
    static constexpr double kHeatSeconds = 24 * 60 * 60;
    static constexpr double kHeatStepSeconds = 5;

    explicit Recorder(double longestGapSeconds = kLongestGapSeconds) : clock_(longestGapSeconds) {}

    void add(const Snapshot& snapshot, std::span<const FanTarget> targets);

    // Stands in the row of the next snapshot.
    void add(const SystemTelemetry& telemetry);

    // Tells which findings came and went since the report before.
    void add(const DiagnosticReport& report);

    // A ControlRequest as it was sent, or a ControlReply as it came. Throws ScopeError for a number
    // that is not finite.
    template <class Message>
    void add(Date date, RecordedEventKind kind, Message message) {
        std::string names = std::exchange(message.label, {}).value_or("");
        add({date, kind, encodeJson(message, {.dates = JsonDates::iso8601}), std::move(names)});
    }
    // Anything else, such as a ControlFailure's message. One without a finite date does not count.
    void add(RecordedEvent event);

    // All that is kept, oldest first.
    struct State {
        FigureTable figures, heat;
        std::deque<RecordedEvent> events;

        // Without the figures.
        static constexpr auto jsonFields() {
            return std::tuple{jsonField("figures", &State::figures),
                              jsonField("heat", &State::heat), jsonField("events", &State::events)};
        }
    };
    const State& state() const { return state_; }

    // All of it for a bug report, UTF-8: events a line each, then the figures in tables, separated
    // by tabs. Dates are UTC. Without names unless asked: no application, no name of a mode.
    std::string text(bool withNames = false) const;

    // The last day, where the die is what a curve with this sensor follows.
    RecordedDay heatDay(CurveSensor sensor) const;

    // Goes on from there, after a gap. False, and nothing changes, for what no recorder tells.
    bool restore(State state);

private:
    void addHeat(const Snapshot& snapshot, bool continues);

    ObservationClock clock_;
    State state_;
    FigureTable heatStep_;                  // the samples of the step that goes on
    std::vector<MetricReading> telemetry_;  // since the last snapshot
    std::size_t eventBytes_ = 0;
    std::map<std::string, RecordedEvent> findings_;  // of the last report, by id
};

}  // namespace ferovane
