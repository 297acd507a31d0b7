// A monitor in one page: what a program that links FerovaneCore has to do to show a machine's heat.
//
//     monitor-example SECONDS FILE.csv [PROFILE HELPER...]
//
// Samples once a second and prints each second as a line of JSON: temperatures, fans, the common
// sensors, the diagnosis, and whether the fans could be taken. At the end, or when told to stop, it
// saves all samples as a table. Needs no privileges, unless a fan profile is named: that is held
// meanwhile by a helper, which the command HELPER starts as root.
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "core/analysis/diagnostic_engine.h"
#include "core/analysis/machine_health.h"
#include "core/analysis/process_activity.h"
#include "core/analysis/process_list.h"
#include "core/analysis/sensor_catalog.h"
#include "core/analysis/system_telemetry.h"
#include "core/control/control_client.h"
#include "core/hardware/hardware_sampler.h"
#include "core/hardware/smc.h"
#include "core/hardware/system_capabilities.h"
#include "core/model/export.h"
#include "core/model/json_codec.h"
#include "core/model/number_text.h"
#include "core/model/scope_error.h"
#include "core/power/sleep_blocker.h"
#include "examples/finding_text.h"
#include "examples/lease_report.h"
#include "shim/fv.h"

namespace {

using namespace ferovane;

constexpr int kLongestSeconds = 86400;  // all samples of a run are kept in memory

struct Row {
    std::string id, title, explanation, unit;
    std::optional<double> value;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("id", &Row::id), jsonField("title", &Row::title),
                          jsonField("explanation", &Row::explanation),
                          jsonField("unit", &Row::unit), jsonField("value", &Row::value)};
    }
};

struct Finding {
    std::string id, text;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("id", &Finding::id), jsonField("text", &Finding::text)};
    }
};

struct Line {
    Date date;
    std::optional<double> cpuTemperature, gpuTemperature;  // what fan curves follow
    std::vector<FanReading> fans;
    std::vector<Row> common;
    std::string diagnosis;
    std::vector<Finding> findings;
    std::vector<LeaseRow> leases;

    static constexpr auto jsonFields() {
        return std::tuple{jsonField("date", &Line::date),
                          jsonField("cpuTemperature", &Line::cpuTemperature),
                          jsonField("gpuTemperature", &Line::gpuTemperature),
                          jsonField("fans", &Line::fans),
                          jsonField("common", &Line::common),
                          jsonField("diagnosis", &Line::diagnosis),
                          jsonField("findings", &Line::findings),
                          jsonField("leases", &Line::leases)};
    }
};

std::vector<Row> commonSensors(const Snapshot& snapshot) {
    std::vector<HardwareSensorReading> readings;
    for (const SensorReading& sensor : snapshot.sensors) {
        readings.push_back(
            {sensor.key, sensor.label, HardwareSensorKind::temperature, sensor.celsius});
    }
    if (snapshot.additionalSensors) {
        readings.insert(readings.end(), snapshot.additionalSensors->begin(),
                        snapshot.additionalSensors->end());
    }
    std::vector<Row> rows;
    for (const auto& common : SensorCatalog::common(readings, currentNamingPlatform())) {
        rows.push_back({common.id, common.title, common.explanation, std::string(unit(common.kind)),
                        common.value});
    }
    return rows;
}

std::optional<int> sleepBlockers() {
    try {
        return static_cast<int>(SleepBlocker::read().size());
    } catch (const ScopeError&) {
        return std::nullopt;  // the diagnosis says that something is missing
    }
}

// Keeps what a diagnosis needs from one sample to the next.
class Diagnosis {
public:
    DiagnosticReport of(const Snapshot& snapshot, SMC& smc) {
        // Dated when it was read: finding a machine's sensors makes the first sample an old one.
        if (const auto processes = processes_.read()) {
            activity_.add(Date::now(), *processes);
        }
        DiagnosticReport report = engine_.evaluate({snapshot, activity_.sources(), activity_.date(),
                                                    activity_.windowSeconds(), sleepBlockers(),
                                                    SystemTelemetry::read().batteryPercent,
                                                    SystemCapabilities::lowPowerMode()});
        std::vector<FanTarget> targets;
        for (const FanReading& fan : snapshot.fans) {
            if (const auto target = smc.target(fan.id)) {
                targets.push_back({fan.id, *target});
            }
        }
        health_.add(snapshot, targets);
        addHealth(health_.findings(), report);
        return report;
    }

private:
    ProcessList processes_;
    ProcessActivity activity_;
    DiagnosticEngine engine_;
    MachineHealth health_;
};

void print(const Snapshot& snapshot, const DiagnosticReport& report, std::vector<LeaseRow> leases) {
    Line line{snapshot.date,
              snapshot.cpuTemperature(),
              snapshot.temperature(SensorCategory::gpu),
              snapshot.fans,
              commonSensors(snapshot),
              textOf(report.state),
              {},
              std::move(leases)};
    for (const DiagnosticFinding& finding : report.findings) {
        line.findings.push_back({finding.id, textOf(finding)});
    }
    std::puts(encodeJson(line, {.dates = JsonDates::iso8601}).c_str());
    std::fflush(stdout);
}

// meanwhile: once a second.
std::vector<Snapshot> watch(int seconds, const std::function<void()>& meanwhile) {
    HardwareSampler sampler;
    SMC smc;  // the sampler keeps its own to itself
    Diagnosis diagnosis;
    std::vector<Snapshot> samples;
    const double start = fv_continuous_seconds();
    while (!fv_should_stop() && samples.size() < static_cast<std::size_t>(seconds)) {
        samples.push_back(sampler.sample());
        print(samples.back(), diagnosis.of(samples.back(), smc), leaseReport(smc, samples.back()));
        meanwhile();
        fv_pause(start + static_cast<double>(samples.size()) - fv_continuous_seconds());
    }
    return samples;
}

// What the helper says, for the user: at the start and the end, and when something happens between.
class HeldProfile {
public:
    HeldProfile(std::string profile, const std::vector<std::string>& helper) : client_(helper) {
        show(client_.request({.command = "profile", .profile = std::move(profile)}), true);
    }
    ~HeldProfile() { show(client_.end(), true); }
    HeldProfile(const HeldProfile&) = delete;
    HeldProfile& operator=(const HeldProfile&) = delete;

    void look() { show(client_.request({.command = "status"}), false); }

private:
    static void show(const ControlAnswer& answer, bool always) {
        if (const auto* failure = std::get_if<ControlFailure>(&answer)) {
            std::fprintf(stderr, "%s\n", failure->message.c_str());
            return;
        }
        const auto& reply = std::get<ControlReply>(answer);
        if (always || !reply.ok) {
            std::fprintf(stderr, "%s\n", reply.message.c_str());
        }
        if (reply.ended) {
            std::fprintf(stderr, "%s\n", reply.ended->message.c_str());
        }
    }

    ControlClient client_;
};

}  // namespace

int main(int argc, char** argv) {
    constexpr int kProfile = 3, kHelper = 4;  // arguments
    const bool complete = argc == kProfile || argc > kHelper;
    const auto seconds = complete ? parseInt32(argv[1]) : std::nullopt;
    if (!seconds || *seconds < 1 || *seconds > kLongestSeconds) {
        std::fputs("Usage: monitor-example SECONDS FILE.csv [PROFILE HELPER...]\n", stderr);
        return 2;
    }
    fv_install_stop_handlers();
    try {
        std::optional<HeldProfile> mode;
        if (argc > kHelper) {
            mode.emplace(argv[kProfile], std::vector<std::string>(argv + kHelper, argv + argc));
        }
        const std::vector<Snapshot> samples =
            watch(*seconds, [&] { mode ? mode->look() : void(); });
        mode.reset();
        std::ofstream file(argv[2], std::ios::binary);
        file << Export::csv(samples) << std::flush;
        if (!file) {
            std::fprintf(stderr, "monitor-example: cannot write %s\n", argv[2]);
            return 1;
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "monitor-example: %s\n", describe(error).c_str());
        return 1;
    }
}
