// What a sample costs beside the calls that it consists of, and the two things done most often with
// what comes back: decoding a value, writing a snapshot as JSON.
#include <benchmark/benchmark.h>
#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "core/model/json_codec.h"
#include "core/model/snapshot.h"
#include "shim/fv.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using ferovane::HardwareSampler;
using ferovane::SMC;
using ferovane::Snapshot;

// A two-fan machine with some `sensors` sensors more than its own few.
simulator::SimulatedMac machineWith(int sensors) {
    auto mac = simulator::intelMac(2);
    mac.addTemperatureKeys(sensors);
    return mac;
}

// The keys that a later sample reads, in its order.
std::vector<std::string> sampledKeys() {
    SMC smc;
    std::vector<std::string> keys;
    for (auto& sensor : smc.sensorKeys()) {
        keys.push_back(std::move(sensor.key));
    }
    keys.insert(keys.end(), {"FNum", "FS! "});
    const auto fans = smc.fans();
    for (const auto& fan : fans) {
        for (const char* suffix : {"Md", "Ac", "Mn", "Mx", "Tg"}) {
            keys.push_back("F" + std::to_string(fan.id) + suffix);
        }
    }
    return keys;
}

void readBare(std::uint32_t connection, const std::vector<std::string>& keys) {
    for (const auto& key : keys) {
        FVValue value;
        benchmark::DoNotOptimize(fv_smc_read(connection, key.c_str(), &value));
        benchmark::DoNotOptimize(value);
    }
}

// What a sample asks the system besides the controller; `sample` counts from 0.
void askSystemBare(std::uint64_t sample) {
    std::uint64_t ticks[4];
    benchmark::DoNotOptimize(fv_cpu_ticks(&ticks[0], &ticks[1], &ticks[2], &ticks[3]));
    if (sample % 5 == 0) {
        benchmark::DoNotOptimize(fv_turbo_driver_state());
    }
    benchmark::DoNotOptimize(fv_power_status());
    benchmark::DoNotOptimize(fv_ac_power());
    benchmark::DoNotOptimize(fv_system_version());
    benchmark::DoNotOptimize(fv_low_power_mode());
    benchmark::DoNotOptimize(fv_processor_count());
    benchmark::DoNotOptimize(fv_thermal_state());
    benchmark::DoNotOptimize(fv_memory_pressure());
}

// Processor time of this thread: nothing measured here waits, and other programs' turns on the
// processor must not count.
double threadSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// The same calls bare and as a sample, in turns, so that whatever slows the machine down slows
// both. The time is that of a sample; the counters are the bare calls to controller and system and
// the quotient.
void sampleOverBareCalls(benchmark::State& state) {
    auto mac = machineWith(static_cast<int>(state.range(0)));
    const auto attached = mac.attach();
    const auto keys = sampledKeys();
    const std::uint32_t connection = fv_smc_open();
    HardwareSampler sampler;
    benchmark::DoNotOptimize(sampler.sample());
    double controller = 0, system = 0, sampled = 0;
    std::uint64_t samples = 0;
    for (auto _ : state) {
        const double start = threadSeconds();
        readBare(connection, keys);
        const double afterController = threadSeconds();
        askSystemBare(samples++);
        const double afterSystem = threadSeconds();
        benchmark::DoNotOptimize(sampler.sample());
        const double end = threadSeconds();
        controller += afterController - start;
        system += afterSystem - afterController;
        sampled += end - afterSystem;
        state.SetIterationTime(end - afterSystem);
    }
    fv_smc_close(connection);
    const double perSample = 1e6 / static_cast<double>(state.iterations());
    state.counters["controller_us"] = controller * perSample;
    state.counters["system_us"] = system * perSample;
    state.counters["ratio"] = sampled / (controller + system);
}
BENCHMARK(sampleOverBareCalls)
    ->Arg(60)
    ->Arg(300)
    ->Arg(2000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void decode(benchmark::State& state) {
    FVValue value{2, 0x73703738, {0x3C, 0x80}};  // sp78
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        benchmark::DoNotOptimize(fv_decode(&value));
    }
}
BENCHMARK(decode);

// The arithmetic of that one type alone, without looking at which type it is.
void decodeFloor(benchmark::State& state) {
    FVValue value{2, 0x73703738, {0x3C, 0x80}};
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        const auto word = static_cast<std::int16_t>(value.data[0] << 8 | value.data[1]);
        benchmark::DoNotOptimize(static_cast<double>(word) / 256.0);
    }
}
BENCHMARK(decodeFloor);

// A 60-sensor snapshot as `probe` prints it and in the compact form.
void snapshotJson(benchmark::State& state) {
    auto mac = machineWith(60);
    const auto attached = mac.attach();
    const Snapshot snapshot = HardwareSampler().sample();
    ferovane::JsonStyle style;
    style.pretty = style.sortedKeys = state.range(0) == 1;
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::string text = ferovane::encodeJson(snapshot, style);
        bytes += text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(snapshotJson)->Arg(0)->Arg(1)->ArgName("pretty");

// The same number of bytes into a fresh string.
void snapshotJsonFloor(benchmark::State& state) {
    auto mac = machineWith(60);
    const auto attached = mac.attach();
    const std::string text = ferovane::encodeJson(HardwareSampler().sample());
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::string(text));
    }
}
BENCHMARK(snapshotJsonFloor);

}  // namespace

BENCHMARK_MAIN();
