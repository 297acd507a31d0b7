// A day of a simulated Mac, fed to a monitor's histories and drawn: day-page FILE.html NAME.
// Whatever can have a name is called NAME. Prints each sample: seconds since the first midnight,
// °C.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "core/analysis/diagnostic_engine.h"
#include "core/control/control_request.h"
#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "examples/page.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/dice.h"

using namespace ferovane;
using simulator::Property;

namespace {

constexpr double kHour = 3600, kPace = 45;
constexpr Date kBegin{794136600};  // 17:30 in the east

// Percent, by hours since the beginning: an evening, a night, a day at the desk, and a long build.
double loadAt(double hours, testing::Dice& dice) {
    const bool building = hours > 23.4 || (hours > 16 && std::fmod(hours, 1.7) < 0.3);
    const double base = building                    ? 92
                        : hours > 6.5 && hours < 15 ? 2
                                                    : 22 + 14 * std::sin(hours * 9);
    return std::clamp(base + dice.upTo(12) - 4, 0.0, 100.0);
}

std::vector<ProcessSample> processesAt(double seconds, const std::string& name) {
    std::vector<ProcessSample> list;
    for (std::int32_t pid = 1; pid <= 40; ++pid) {
        const auto used = std::uint64_t(seconds * 1e9 * (pid == 7 ? 3.1 : 0.4 / pid));
        list.push_back({.pid = 100 + pid,
                        .parentPid = pid % 4 == 0 ? 100 + pid - 1 : 1,
                        .started = std::uint64_t(pid),
                        .cpuNanoseconds = used,
                        .diskReadBytes = used / 900,
                        .diskWriteBytes = used / 400,
                        .name = pid == 7 ? name : "process " + std::to_string(pid),
                        .uid = pid < 20 ? 0U : 501U,
                        .memoryBytes = std::uint64_t(pid) << 25});
    }
    return list;
}

}  // namespace

int main(int, char** argv) {
    const std::string name = argv[2];
    testing::Dice dice(7);
    simulator::SimulatedMac mac = simulator::builtInMac("MacBookPro16,1");
    const auto attached = mac.attach();
    double setBack = 0;
    const auto now = [&] { return kBegin + mac.now() - setBack; };
    HardwareSampler sampler(now);
    SMC smc({[&] { return mac.now(); }, [&](double seconds) { mac.advance(seconds); }, false});
    MonitorHistories histories(60);
    DiagnosticEngine engine;
    DiagnosticReport report;
    Snapshot snapshot;
    mac.settle();
    while (mac.now() < 24 * kHour) {
        const double hours = mac.now() / kHour;
        const double load = loadAt(hours, dice);
        mac.set(Property::kLoad, load);
        mac.set(Property::kExtensionLoaded, hours > 17 && hours < 21 ? 1 : 0);
        mac.set(Property::kAmbient, 22 + 2 * std::sin(hours / 4));
        mac.advance(hours >= 19 && hours < 19.01 ? 1.2 * kHour : kPace);  // asleep
        setBack = hours > 22 ? 90 : 0;
        snapshot = sampler.sample();
        snapshot.cpuUsage = load;
        std::printf("%.0f %.3f\n", now() - kBegin + 17.5 * kHour, *snapshot.cpuTemperature());
        snapshot.sensors[1].label = name;
        std::vector<FanTarget> targets;
        for (FanReading& fan : snapshot.fans) {
            targets.push_back({fan.id, smc.target(fan.id).value_or(0)});
            fan.rpm = fan.id == 1 && hours > 23 ? 0 : fan.rpm;
        }
        histories.add(snapshot, targets);
        SystemTelemetry telemetry;
        telemetry.date = snapshot.date;
        telemetry.batteryPercent = 100 - std::abs(hours - 12) * 4;
        telemetry.batteryWatts = -9 - dice.upTo(5);
        telemetry.memoryUsed = 1e10 + 2e8 * hours;
        telemetry.memoryTotal = 1.7e10;
        histories.add(telemetry);
        histories.add(snapshot.date, processesAt(mac.now(), name));
        const ProcessActivity& activity = histories.processes();
        report = engine.evaluate(
            {snapshot, activity.sources(), activity.date(), activity.windowSeconds(), 2, 30, true});
        addHealth(histories.health().findings(), report);
        histories.add(report);
        if (hours > 23.6 &&
            histories.assessment().progress().phase == OptimizationPhase::noChange) {
            histories.note(snapshot.date, RecordedEventKind::request,
                           ControlRequest{.command = "profile", .label = name});
            histories.noteChange(snapshot.date);
        }
    }
    std::ofstream(argv[1]) << pageOf(
        histories, {snapshot, report, {histories.recorder().heatDay(CurveSensor::cpu)}, [](Date) {
                        return 8 * kHour;
                    }});
    return 0;
}
