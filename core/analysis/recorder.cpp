#include "core/analysis/recorder.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <limits>
#include <string_view>

#include "core/model/number_text.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

constexpr double kNoFigure = std::numeric_limits<double>::quiet_NaN();

// In the order in which the heat model's figures are put and taken.
constexpr std::array<std::string_view, 7> kHeatIds{"watts", "load", "cpu", "gpu",
                                                   "sink",  "room", "rpm"};

struct Row {
    std::vector<MetricReading> readings;

    template <class Value>
    void put(std::string id, const Value& value) {
        std::optional<double> number;
        if constexpr (requires { value.has_value(); }) {
            number = value ? std::optional(static_cast<double>(*value)) : std::nullopt;
        } else {
            number = static_cast<double>(value);
        }
        readings.push_back({std::move(id), {}, {}, number});
    }

    // Every member of a record that is a number, a state or a switch.
    template <class Record>
    void putAll(const std::string& prefix, const Record& record) {
        const auto put = [&](const auto& field) {
            if constexpr (
                requires { static_cast<double>(record.*field.member); } ||
                requires { static_cast<double>(*(record.*field.member)); }) {
                this->put(prefix + std::string(field.name), record.*field.member);
            }
        };
        std::apply([&](const auto&... field) { (put(field), ...); }, Record::jsonFields());
    }
};

std::vector<MetricReading> figuresOf(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    Row row;
    row.putAll({}, snapshot);
    for (const FanReading& fan : snapshot.fans) {
        row.putAll(MetricHistories::fan(fan.id) + ":", fan);
    }
    for (const FanTarget& target : targets) {
        row.put(MetricHistories::fan(static_cast<int>(target.id)) + ":target", target.rpm);
    }
    // A fan's number is in its name, and its speed is one of the metrics.
    std::erase_if(row.readings, [](const MetricReading& reading) {
        return reading.id.ends_with(":id") || reading.id.ends_with(":rpm");
    });
    std::ranges::move(MetricHistories::readings(snapshot), std::back_inserter(row.readings));
    return row.readings;
}

std::optional<double> meanOf(const std::deque<double>& values) {
    double sum = 0;
    int count = 0;
    for (const double value : values) {
        sum += std::isfinite(value) ? value : 0;
        count += std::isfinite(value) ? 1 : 0;
    }
    return count > 0 ? std::optional(sum / count) : std::nullopt;
}

std::size_t sizeOf(const RecordedEvent& event) {
    return sizeof(event) + event.text.size() + event.names.size();
}

// But for the tabs between the parts of an event.
bool isControl(char byte) {
    return (byte >= 0 && byte < ' ' && byte != '\t') || byte == 127;
}

RecordedEvent eventOf(const DiagnosticFinding& finding, Date date) {
    RecordedEvent event{date, RecordedEventKind::findingCame, finding.id, {}};
    const std::string subject = finding.subject.value_or("");
    if (finding.kind == DiagnosticKind::sustainedCPU ||
        finding.kind == DiagnosticKind::diskActivity) {
        event.text = finding.id.substr(0, finding.id.find(':'));
        event.names = subject;
    } else {
        event.text += "\t" + subject;
    }
    return event;
}

void writeTable(std::string_view title, const FigureTable& table, std::string& text) {
    text.append("\n").append(title).append("\n时间");
    for (const auto& [id, column] : table.columns) {
        text.append("\t").append(id).append(column.label.empty() ? "" : " ").append(column.label);
    }
    for (std::size_t row = 0; row < table.dates.size(); ++row) {
        text += "\n" + iso8601(table.dates[row]);
        for (const auto& [id, column] : table.columns) {
            const double value = column.values[row];
            text.append("\t").append(std::isfinite(value) ? fixed2(value) : "");
        }
    }
    text += "\n";
}

bool isPossible(const FigureTable& table) {
    return std::ranges::adjacent_find(table.dates, std::ranges::greater{}) == table.dates.end() &&
           table.dates.size() * table.columns.size() <= Recorder::kMostFigures &&
           std::ranges::all_of(table.columns, [&](const auto& entry) {
               return entry.second.values.size() == table.dates.size();
           });
}

}  // namespace

void FigureTable::add(Date date, std::span<const MetricReading> row, double span,
                      std::size_t most) {
    const std::size_t columnsBefore = columns.size();
    for (const MetricReading& reading : row) {
        if (reading.value && std::isfinite(*reading.value)) {
            Column& column = columns[reading.id];
            column.label = reading.label;
            column.values.resize(dates.size(), kNoFigure);  // the last of two with one id counts
            column.values.push_back(*reading.value);
        }
    }
    dates.push_back(date);
    for (auto& [id, column] : columns) {
        column.values.resize(dates.size(), kNoFigure);
    }
    while (dates.front() < date - span ||
           (dates.size() > 1 && dates.size() * columns.size() > most)) {
        dates.pop_front();
        for (auto& [id, column] : columns) {
            column.values.pop_front();
        }
    }
    if (columns.size() > columnsBefore) {
        std::erase_if(columns, [](const auto& entry) { return !meanOf(entry.second.values); });
    }
}

void FigureTable::forgetFrom(Date date) {
    while (!dates.empty() && dates.back() >= date) {
        dates.pop_back();
        for (auto& [id, column] : columns) {
            column.values.pop_back();
        }
    }
}

void Recorder::add(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    const ObservationClock::Step step = clock_.advance(snapshot.date);
    if (step == ObservationClock::Step::ignored) {
        return;
    }
    if (step == ObservationClock::Step::setBack) {
        for (; !state_.events.empty() && state_.events.back().date > snapshot.date;
             state_.events.pop_back()) {
            eventBytes_ -= sizeOf(state_.events.back());
        }
        for (FigureTable* table : {&state_.figures, &state_.heat, &heatStep_}) {
            table->forgetFrom(snapshot.date);
        }
    }
    std::vector<MetricReading> row = figuresOf(snapshot, targets);
    std::ranges::move(std::exchange(telemetry_, {}), std::back_inserter(row));
    state_.figures.add(snapshot.date, row, kSeconds, kMostFigures);
    addHeat(snapshot, step == ObservationClock::Step::continues);
}

void Recorder::add(const SystemTelemetry& telemetry) {
    if (!isMoment(telemetry.date)) {
        return;
    }
    Row row;
    row.putAll({}, telemetry);
    std::ranges::move(MetricHistories::readings(telemetry), std::back_inserter(row.readings));
    telemetry_ = std::move(row.readings);
}

void Recorder::addHeat(const Snapshot& snapshot, bool continues) {
    const auto stepOf = [](Date date) {
        return std::floor(date.secondsSinceReference / kHeatStepSeconds);
    };
    const auto& dates = heatStep_.dates;
    if (!dates.empty() && (!continues || stepOf(dates.front()) != stepOf(snapshot.date))) {
        std::vector<MetricReading> means;
        for (const auto& [id, column] : heatStep_.columns) {
            means.push_back({id, {}, {}, meanOf(column.values)});
        }
        state_.heat.add(dates.front() + (dates.back() - dates.front()) / 2, means, kHeatSeconds,
                        kMostFigures);
        heatStep_ = {};
    }
    const HeatSample sample = heatSample(snapshot, {});
    const std::array values{
        sample.watts, sample.load, sample.die, temperature(CurveSensor::gpu, snapshot),
        sample.sink,  sample.room, sample.rpm};
    Row row;
    for (std::size_t i = 0; i < values.size(); ++i) {
        row.put(std::string(kHeatIds[i]), values[i]);
    }
    heatStep_.add(snapshot.date, row.readings, kHeatStepSeconds, kMostFigures);
}

void Recorder::add(const DiagnosticReport& report) {
    std::map<std::string, RecordedEvent> gone = std::exchange(findings_, {});
    for (const DiagnosticFinding& finding : report.findings) {
        RecordedEvent event = eventOf(finding, report.date);
        findings_.emplace(finding.id, event);
        if (gone.erase(finding.id) == 0) {
            event.text += finding.value ? "\t" + fixed2(*finding.value) : "";
            add(std::move(event));
        }
    }
    for (auto& [id, event] : gone) {
        event.date = report.date;
        event.kind = RecordedEventKind::findingWent;
        add(std::move(event));
    }
}

void Recorder::add(RecordedEvent event) {
    if (!isMoment(event.date)) {
        return;
    }
    for (std::string* text : {&event.text, &event.names}) {
        *text = utf8Prefix(repairUtf8(*text), kMostTextBytes);
    }
    eventBytes_ += sizeOf(event);
    auto& events = state_.events;
    events.insert(std::ranges::upper_bound(events, event.date, {}, &RecordedEvent::date), event);
    for (; eventBytes_ > kMostEventBytes; events.pop_front()) {
        eventBytes_ -= sizeOf(events.front());
    }
}

std::string Recorder::text(bool withNames) const {
    std::string text = "监测记录（时间为 UTC）\n";
    text += "\n事件\n";
    for (const RecordedEvent& event : state_.events) {
        std::string line = event.text + (withNames ? "\t" + event.names : "");
        std::ranges::replace_if(line, isControl, ' ');
        text.append(iso8601(event.date)).append("\t").append(rawValue(event.kind));
        text.append("\t").append(line).append("\n");
    }
    writeTable("最近半小时的读数", state_.figures, text);
    writeTable("最近一天的发热与散热（每 5 秒的平均）", state_.heat, text);
    return text;
}

RecordedDay Recorder::heatDay(CurveSensor sensor) const {
    std::vector<HeatSample> samples;
    for (std::size_t row = 0; row < state_.heat.dates.size(); ++row) {
        std::array<std::optional<double>, kHeatIds.size()> values;
        for (std::size_t i = 0; i < values.size(); ++i) {
            const auto column = state_.heat.columns.find(std::string(kHeatIds[i]));
            if (column != state_.heat.columns.end() && std::isfinite(column->second.values[row])) {
                values[i] = column->second.values[row];
            }
        }
        const auto& [watts, load, cpu, gpu, sink, room, rpm] = values;
        HeatSample sample;
        sample.date = state_.heat.dates[row];
        sample.die = sensor == CurveSensor::cpu   ? cpu
                     : sensor == CurveSensor::gpu ? gpu
                                                  : std::max(cpu, gpu);
        sample.sink = sink;
        sample.room = room;
        sample.watts = watts;
        sample.load = load;
        sample.rpm = rpm;
        samples.push_back(sample);
    }
    return RecordedDay::from(samples);
}

bool Recorder::restore(State state) {
    if (!isPossible(state.figures) || !isPossible(state.heat)) {
        return false;
    }
    *this = Recorder(clock_.longestGapSeconds());
    std::ranges::for_each(std::exchange(state.events, {}),
                          [this](const RecordedEvent& it) { add(it); });
    std::swap(state.events, state_.events);
    state_ = std::move(state);
    if (!state_.figures.dates.empty()) {
        clock_.resume(state_.figures.dates.back());
    }
    return true;
}

}  // namespace ferovane
