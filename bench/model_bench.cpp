// Texts of records: the table of a million samples beside other ways of writing the same bytes, and
// the JSON of what travels and of what is printed.
//
//     chrt -f 50 taskset -c 1 model_bench --benchmark_filter='csv|number'
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/export.h"
#include "core/model/json_codec.h"
#include "core/model/number_text.h"
#include "core/model/snapshot.h"

#ifdef FEROVANE_BENCH_FMT
#include <fmt/compile.h>
#endif

namespace ferovane {
namespace {

constexpr std::size_t kRows = 1000000;

const std::vector<Snapshot>& samples() {
    static const std::vector<Snapshot> all = [] {
        std::mt19937_64 random(1);
        const auto between = [&](double low, double high) {
            return std::uniform_real_distribution<double>(low, high)(random);
        };
        std::vector<Snapshot> made(kRows);
        for (std::size_t i = 0; i < made.size(); ++i) {
            made[i].date = Date{750000000.0 + static_cast<double>(i)};
            made[i].cpuUsage = between(0, 100);
            made[i].sensors = {{"TC0P", "", between(20, 100)}};
            made[i].speedLimit = made[i].schedulerLimit = 100;
            made[i].availableCPUs = made[i].totalCPUs = 8;
            made[i].acPower = true;
            made[i].fans = {{0, between(1200, 6200), {}, {}, {}, true},
                            {1, between(1200, 6200), {}, {}, {}, true}};
        }
        return made;
    }();
    return all;
}

using Row = std::array<char, 400>;

// The same table with another way of writing a row, as long as every value is known. What is no
// number (the date, the driver's state) is written alike by all of them.
template <class WriteRow>
std::string csvBy(WriteRow writeRow) {
    std::string table = Export::csv({});
    table.reserve(samples().size() * 96);
    Row row;
    std::array<char, kIso8601MaxLength + 1> date;
    for (const Snapshot& snapshot : samples()) {
        char* const end = writeIso8601(snapshot.date, date.data());
        *end = '\0';
        const std::string_view written(date.data(), static_cast<std::size_t>(end - date.data()));
        table.append(row.data(), writeRow(snapshot, written, row));
    }
    return table;
}

std::string csvByPrintf() {
    return csvBy([](const Snapshot& s, std::string_view date, Row& row) {
        return row.data() +
               std::snprintf(
                   row.data(), row.size(), "\n%s,%.2f,%.2f,%d,%d,%d,%d,%d,,%s,%d,%d,%.2f,%.2f",
                   date.data(), *s.cpuUsage, *s.cpuTemperature(), *s.speedLimit, *s.schedulerLimit,
                   *s.availableCPUs, s.totalCPUs, s.thermalState, rawValue(s.turbo).data(),
                   *s.acPower ? 1 : 0, s.lowPower ? 1 : 0, *s.fans[0].rpm, *s.fans[1].rpm);
    });
}

#ifdef __cpp_lib_to_chars
// Fields one after the other, numbers by the standard library.
class StandardRow {
public:
    // One byte short, so that the compiler sees room for what stands between two numbers.
    explicit StandardRow(Row& row) : out_(row.data()), end_(row.data() + row.size() - 1) {}
    char* end() const { return out_; }
    void text(char before, std::string_view value) {
        *out_ = before;
        out_ = std::copy(value.begin(), value.end(), out_ + 1);
    }
    void integer(int value) {
        text(',', {});
        out_ = std::to_chars(out_, end_, value).ptr;
    }
    void decimal(double value) {
        text(',', {});
        out_ = std::to_chars(out_, end_, value, std::chars_format::fixed, 2).ptr;
    }

private:
    char* out_;
    char* end_;
};

std::string csvByToChars() {
    return csvBy([](const Snapshot& s, std::string_view date, Row& row) {
        StandardRow out(row);
        out.text('\n', date);
        out.decimal(*s.cpuUsage);
        out.decimal(*s.cpuTemperature());
        out.integer(*s.speedLimit);
        out.integer(*s.schedulerLimit);
        out.integer(*s.availableCPUs);
        out.integer(s.totalCPUs);
        out.integer(s.thermalState);
        out.text(',', {});
        out.text(',', rawValue(s.turbo));
        out.text(',', *s.acPower ? "1" : "0");
        out.text(',', s.lowPower ? "1" : "0");
        out.decimal(*s.fans[0].rpm);
        out.decimal(*s.fans[1].rpm);
        return out.end();
    });
}
#endif

#ifdef FEROVANE_BENCH_FMT
std::string csvByFmt() {
    return csvBy([](const Snapshot& s, std::string_view date, Row& row) {
        return fmt::format_to(
            row.data(), FMT_COMPILE("\n{},{:.2f},{:.2f},{},{},{},{},{},,{},{},{},{:.2f},{:.2f}"),
            date, *s.cpuUsage, *s.cpuTemperature(), *s.speedLimit, *s.schedulerLimit,
            *s.availableCPUs, s.totalCPUs, s.thermalState, rawValue(s.turbo), *s.acPower ? 1 : 0,
            s.lowPower ? 1 : 0, *s.fans[0].rpm, *s.fans[1].rpm);
    });
}
#endif

template <class Make>
void table(benchmark::State& state, Make make) {
    if (make() != Export::csv(samples())) {
        state.SkipWithError("differs from ours");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(make());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRows));
}

void csv(benchmark::State& state) {
    table(state, [] { return Export::csv(samples()); });
}
BENCHMARK(csv)->Unit(benchmark::kMillisecond);
void csvPrintf(benchmark::State& state) {
    table(state, csvByPrintf);
}
BENCHMARK(csvPrintf)->Unit(benchmark::kMillisecond);
#ifdef __cpp_lib_to_chars
void csvToChars(benchmark::State& state) {
    table(state, csvByToChars);
}
BENCHMARK(csvToChars)->Unit(benchmark::kMillisecond);
#endif
#ifdef FEROVANE_BENCH_FMT
void csvFmt(benchmark::State& state) {
    table(state, csvByFmt);
}
BENCHMARK(csvFmt)->Unit(benchmark::kMillisecond);
#endif

// One number at a time: what the table is made of.
template <class Write>
void numbers(benchmark::State& state, Write write) {
    std::array<char, kFixed2MaxLength> text;
    for (auto _ : state) {
        for (std::size_t i = 0; i < 1000; ++i) {
            benchmark::DoNotOptimize(write(*samples()[i].fans[0].rpm, text));
        }
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}
using Text = std::array<char, kFixed2MaxLength>;

void numberOurs(benchmark::State& state) {
    numbers(state, [](double value, Text& text) { return writeFixed2(value, text.data()); });
}
BENCHMARK(numberOurs);

void numberPrintf(benchmark::State& state) {
    numbers(state, [](double value, Text& text) {
        return text.data() + std::snprintf(text.data(), text.size(), "%.2f", value);
    });
}
BENCHMARK(numberPrintf);

#ifdef FEROVANE_BENCH_FMT
void numberFmt(benchmark::State& state) {
    numbers(state, [](double value, Text& text) {
        return fmt::format_to(text.data(), FMT_COMPILE("{:.2f}"), value);
    });
}
BENCHMARK(numberFmt);
#endif

#ifdef __cpp_lib_to_chars
void numberToChars(benchmark::State& state) {
    numbers(state, [](double value, Text& text) {
        return std::to_chars(text.data(), text.data() + text.size(), value,
                             std::chars_format::fixed, 2)
            .ptr;
    });
}
BENCHMARK(numberToChars);
#endif

Snapshot fullSnapshot() {
    Snapshot snapshot = samples().front();
    snapshot.sensors.clear();
    for (int i = 0; i < 60; ++i) {
        snapshot.sensors.push_back(
            {"TC" + std::to_string(10 + i), "处理器核心 " + std::to_string(i), 40 + i / 256.0});
    }
    return snapshot;
}

ControlRequest customProfile() {
    return {.command = "profile",
            .profile = "custom",
            .curve = FanCurve{{{40, 0}, {55, 8.5}, {70, 25}, {90, 100}}, CurveSensor::hottest},
            .duration = 1800.0,
            .label = "独立风扇策略"};
}

ControlReply runningStatus() {
    return {.ok = true,
            .message = "控制已确认生效",
            .session = "0123ABCD-EF45-6789-ABCD-EF0123456789",
            .profile = "custom",
            .label = "独立风扇策略",
            .turbo = 0,
            .fanStatus = FanSessionStatus{1799.25, {{0, 2160}, {1, 2000}}, false}};
}

template <class T>
void encoding(benchmark::State& state, const T& record) {
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::string text = encodeJson(record);
        bytes = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}

template <class T>
void decoding(benchmark::State& state, const T& record) {
    const std::string text = encodeJson(record);
    for (auto _ : state) {
        benchmark::DoNotOptimize(decodeJson<T>(text));
    }
    state.counters["bytes"] = static_cast<double>(text.size());
}

BENCHMARK_CAPTURE(encoding, snapshot, fullSnapshot());
BENCHMARK_CAPTURE(decoding, snapshot, fullSnapshot());
BENCHMARK_CAPTURE(encoding, request, customProfile());
BENCHMARK_CAPTURE(decoding, request, customProfile());
BENCHMARK_CAPTURE(encoding, reply, runningStatus());
BENCHMARK_CAPTURE(decoding, reply, runningStatus());

// The longest line a session reads, made of names that nobody knows.
void worstLine(benchmark::State& state) {
    std::string line = R"({"command":"status")";
    for (int i = 0; line.size() < 16370; ++i) {
        line += ",\"" + std::to_string(i) + "\":0";
    }
    line += "}";
    for (auto _ : state) {
        benchmark::DoNotOptimize(decodeJson<ControlRequest>(line));
    }
    state.counters["bytes"] = static_cast<double>(line.size());
}
BENCHMARK(worstLine);

}  // namespace
}  // namespace ferovane

BENCHMARK_MAIN();
