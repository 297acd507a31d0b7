// Texts of records: the table of a million samples beside printf's, and the JSON of what travels
// and of what is printed.
//
//     chrt -f 50 taskset -c 1 model_bench --benchmark_filter='csv|number'
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/export.h"
#include "core/model/json_codec.h"
#include "core/model/number_text.h"
#include "core/model/snapshot.h"

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

// The same table by printf, as long as every value is known.
std::string csvByPrintf() {
    std::string table = Export::csv({});
    table.reserve(samples().size() * 96);
    std::array<char, 400> row;
    for (const Snapshot& s : samples()) {
        const int length = std::snprintf(
            row.data(), row.size(), "\n%s,%.2f,%.2f,%d,%d,%d,%d,%d,,%s,%d,%d,%.2f,%.2f",
            iso8601(s.date).c_str(), *s.cpuUsage, *s.cpuTemperature(), *s.speedLimit,
            *s.schedulerLimit, *s.availableCPUs, s.totalCPUs, s.thermalState,
            rawValue(s.turbo).data(), *s.acPower ? 1 : 0, s.lowPower ? 1 : 0, *s.fans[0].rpm,
            *s.fans[1].rpm);
        table.append(row.data(), static_cast<std::size_t>(length));
    }
    return table;
}

void csv(benchmark::State& state, std::string (*make)()) {
    if (make() != Export::csv(samples())) {
        state.SkipWithError("differs from ours");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(make());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kRows));
}
BENCHMARK_CAPTURE(csv, ours, [] { return Export::csv(samples()); })->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(csv, printf, csvByPrintf)->Unit(benchmark::kMillisecond);

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
