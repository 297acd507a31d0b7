// What a monitor pays each second for understanding what it samples.
//
//     chrt -f 50 taskset -c 1 analysis_bench --benchmark_repetitions=3
#include <benchmark/benchmark.h>

#include <cmath>
#include <string>
#include <vector>

#include "core/analysis/diagnostic_engine.h"
#include "core/analysis/metric_chart.h"
#include "core/analysis/metric_histories.h"
#include "core/analysis/process_activity.h"
#include "core/analysis/process_list.h"
#include "core/analysis/sensor_catalog.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace ferovane {
namespace {

constexpr Date kStart{700000000};

Snapshot snapshotOf(int sensors) {
    Snapshot snapshot;
    snapshot.date = kStart;
    snapshot.cpuUsage = 20;
    snapshot.speedLimit = snapshot.schedulerLimit = 100;
    snapshot.availableCPUs = snapshot.totalCPUs = 10;
    snapshot.memoryPressure = MemoryPressure::normal;
    for (int i = 0; i < sensors; ++i) {
        std::string key = std::to_string(1000 + i);  // "TC00", "Tp01", "Tp02", "TC03" …
        key[0] = 'T';
        key[1] = i % 3 == 0 ? 'C' : static_cast<char>('p' + i / 100);
        snapshot.sensors.push_back({key, "CPU · " + key, 50});
    }
    snapshot.fans = {{0, 2000, 1200, 6000, false, true}, {1, 2000, 1200, 6000, false, true}};
    return snapshot;
}

void evaluate(benchmark::State& state) {
    DiagnosticInput input;
    input.snapshot = snapshotOf(60);
    for (int i = 0; i < state.range(0); ++i) {
        DiagnosticSource source;
        source.id = std::to_string(i) + "-123456789012";
        source.name = "Application " + std::to_string(i);
        source.averageCPU = 90 + i % 40;
        source.currentCPU = 60;
        source.averageDiskRate = 1e6 * (i % 50);
        source.currentDiskRate = 1e7;
        source.diskSeconds = 60;
        input.sources.push_back(source);
    }
    input.processSeconds = 60;
    input.blockers = 1;
    DiagnosticEngine engine;
    for (auto _ : state) {
        input.snapshot.date = input.snapshot.date + 1;
        input.processDate = input.snapshot.date;
        benchmark::DoNotOptimize(engine.evaluate(input));
    }
}
BENCHMARK(evaluate)->Arg(0)->Arg(2000);

// The floor of a diagnosis: looking once at every figure it is made from.
void lookAtSources(benchmark::State& state) {
    std::vector<DiagnosticSource> sources(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        double sum = 0;
        for (const DiagnosticSource& source : sources) {
            sum += source.averageCPU + source.currentCPU + source.averageDiskRate.value_or(0) +
                   source.currentDiskRate.value_or(0) + source.diskSeconds;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(lookAtSources)->Arg(2000);

std::vector<ProcessSample> processes(int count) {
    std::vector<ProcessSample> list;
    for (int i = 0; i < count; ++i) {
        // One application in four; the others help it or its helpers.
        const std::int32_t pid = 100 + i;
        const std::int32_t parent = i % 4 == 0 ? 1 : pid - 1;
        list.push_back({pid, parent, static_cast<std::uint64_t>(pid) * 1000, 0, 0, 0,
                        "process number " + std::to_string(i)});
    }
    return list;
}

// A list a second, with the sources that a diagnosis is made from and what a view shows; per process
// it should cost the same however many there are.
void followProcesses(benchmark::State& state) {
    auto list = processes(static_cast<int>(state.range(0)));
    ProcessActivity activity;
    double seconds = 0;
    for (auto _ : state) {
        for (ProcessSample& process : list) {
            process.cpuNanoseconds += 1000000;
            process.diskReadBytes += 4096;
        }
        activity.add(kStart + ++seconds, list);
        benchmark::DoNotOptimize(activity.sources());
        benchmark::DoNotOptimize(activity.applications());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(followProcesses)->Arg(500)->Arg(5000)->Arg(50000);

// Every process started by the one before: the longest chain that a list can hold.
void followOneChain(benchmark::State& state) {
    auto list = processes(static_cast<int>(state.range(0)));
    for (ProcessSample& process : list) {
        process.parentPid = process.pid - 1;
    }
    ProcessActivity activity;
    double seconds = 0;
    for (auto _ : state) {
        activity.add(kStart + ++seconds, list);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(followOneChain)->Arg(5000);

// Numbers a large power of two apart, which a careless table would put into one place.
void followEvenlySpacedPids(benchmark::State& state) {
    auto list = processes(static_cast<int>(state.range(0)));
    for (ProcessSample& process : list) {
        process.pid *= 1 << 16;
        process.parentPid = 1;
    }
    ProcessActivity activity;
    double seconds = 0;
    for (auto _ : state) {
        activity.add(kStart + ++seconds, list);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(followEvenlySpacedPids)->Arg(5000);

void listProcessesOfThisMachine(benchmark::State& state) {
    ProcessList list;
    std::size_t listed = 0;
    for (auto _ : state) {
        listed = list.read().value().size();
    }
    state.counters["processes"] = static_cast<double>(listed);
}
BENCHMARK(listProcessesOfThisMachine);

// What the heap has given out; 0 where it does not tell.
double heapBytes() {
#ifdef __GLIBC__
    return static_cast<double>(mallinfo2().uordblks);
#else
    return 0;
#endif
}

// A day of samples, one a second; the memory held at its end, and half-way through a second day.
void aDayOfHistories(benchmark::State& state) {
    const int sensors = static_cast<int>(state.range(0));
    constexpr int kDay = 24 * 60 * 60;
    double afterADay = 0, later = 0;
    for (auto _ : state) {
        const double before = heapBytes();
        Snapshot snapshot = snapshotOf(sensors);
        MetricHistories histories;
        for (int second = 0; second < kDay; ++second) {
            snapshot.date = kStart + second;
            snapshot.cpuUsage = second % 100;
            histories.add(snapshot);
        }
        afterADay = heapBytes() - before;
        state.PauseTiming();
        for (int second = kDay; second < kDay + kDay / 2; ++second) {
            snapshot.date = kStart + second;
            histories.add(snapshot);
        }
        later = heapBytes() - before;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kDay * sensors);
    state.counters["MB_after_a_day"] = afterADay / 1e6;
    state.counters["MB_half_a_day_later"] = later / 1e6;
}
BENCHMARK(aDayOfHistories)->Arg(1)->Arg(60)->Arg(380)->Unit(benchmark::kMillisecond)->Iterations(1);

void drawAChart(benchmark::State& state) {
    MetricSeries series(MetricHistory::kHoursBucketSeconds, MetricHistory::kHoursSpanSeconds);
    for (int second = 0; second < 24 * 60 * 60; ++second) {
        series.append(kStart + second, 50 + 30 * std::sin(second / 500.0));
    }
    const ChartFrame frame{kStart, kStart + 24.0 * 60 * 60, 0, 100, 800};
    for (auto _ : state) {
        benchmark::DoNotOptimize(MetricChart::stretches(series.buckets(), frame));
    }
}
BENCHMARK(drawAChart);

void nameEverySensor(benchmark::State& state) {
    std::vector<HardwareSensorReading> readings;
    for (const SensorReading& sensor : snapshotOf(380).sensors) {
        readings.push_back({sensor.key, sensor.label, HardwareSensorKind::temperature, 50});
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(SensorCatalog::common(readings, SensorNamingPlatform::appleM4));
    }
}
BENCHMARK(nameEverySensor);

}  // namespace
}  // namespace ferovane

BENCHMARK_MAIN();
