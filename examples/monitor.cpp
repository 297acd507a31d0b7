// A monitor in one page: what a program that links FerovaneCore has to do to show a machine's heat.
//
//     monitor-example [--page FILE.html] [--day FILE]... SECONDS FILE.csv [PROFILE HELPER...]
//
// Samples once a second and prints each second as a line of JSON: temperatures, fans, the common
// sensors, the diagnosis, and whether the fans could be taken. At the end, or when told to stop, it
// saves all samples as a table, and draws what it remembers as a page when asked to. The first day
// named goes on where it was saved and is saved again; more of them, from other days, are read to
// tell what other fan curves would have done: that takes four. Needs no
// privileges, unless a fan profile is named: that is held meanwhile by a helper, which the command
// HELPER starts as root.
#include <cstdio>
#include <ctime>
#include <exception>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "core/analysis/diagnostic_engine.h"
#include "core/analysis/monitor_histories.h"
#include "core/analysis/process_list.h"
#include "core/analysis/saved_day.h"
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
#include "examples/page.h"
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

std::optional<int> sleepBlockers() {
    try {
        return static_cast<int>(SleepBlocker::read().size());
    } catch (const ScopeError&) {
        return std::nullopt;  // the diagnosis says that something is missing
    }
}

// What a monitor keeps from one sample to the next.
struct Memory {
    MonitorHistories histories;
    DiagnosticEngine engine;
    std::vector<Snapshot> samples;
    DiagnosticReport report;  // of the last one
};

// Feeds the histories with all that a moment tells, and has it diagnosed.
void remember(Memory& memory, const Snapshot& snapshot, SMC& smc, ProcessList& list) {
    std::vector<FanTarget> targets;
    for (const FanReading& fan : snapshot.fans) {
        if (const auto target = smc.target(fan.id)) {
            targets.push_back({fan.id, *target});
        }
    }
    MonitorHistories& histories = memory.histories;
    histories.add(snapshot, targets);
    const SystemTelemetry telemetry = SystemTelemetry::read();
    histories.add(telemetry);
    // Dated when it was read: finding a machine's sensors makes the first sample an old one.
    if (const auto processes = list.read()) {
        histories.add(Date::now(), *processes);
    }
    const ProcessActivity& activity = histories.processes();
    memory.report = memory.engine.evaluate(
        {snapshot, activity.sources(), activity.date(), activity.windowSeconds(), sleepBlockers(),
         telemetry.batteryPercent, SystemCapabilities::lowPowerMode()});
    addHealth(histories.health().findings(), memory.report);
    histories.add(memory.report);
    memory.samples.push_back(snapshot);
}

void print(const Snapshot& snapshot, const DiagnosticReport& report, std::vector<LeaseRow> leases) {
    Line line{snapshot.date,
              snapshot.cpuTemperature(),
              snapshot.temperature(SensorCategory::gpu),
              snapshot.fans,
              {},
              textOf(report.state),
              {},
              std::move(leases)};
    for (const CommonSensorReading& it : commonSensors(snapshot)) {
        line.common.push_back(
            {it.id, it.title, it.explanation, std::string(unit(it.kind)), it.value});
    }
    for (const DiagnosticFinding& finding : report.findings) {
        line.findings.push_back({finding.id, textOf(finding)});
    }
    std::puts(encodeJson(line, {.dates = JsonDates::iso8601}).c_str());
    std::fflush(stdout);
}

// meanwhile: once a second.
void watch(int seconds, Memory& memory, const std::function<void()>& meanwhile) {
    HardwareSampler sampler;
    SMC smc;  // the sampler keeps its own to itself
    ProcessList list;
    const std::vector<Snapshot>& samples = memory.samples;
    const double start = fv_continuous_seconds();
    while (!fv_should_stop() && samples.size() < static_cast<std::size_t>(seconds)) {
        remember(memory, sampler.sample(), smc, list);
        print(samples.back(), memory.report, leaseReport(smc, samples.back()));
        meanwhile();
        fv_pause(start + static_cast<double>(samples.size()) - fv_continuous_seconds());
    }
}

// What the helper says, for the user: at the start and the end, and when something happens between.
class HeldProfile {
public:
    HeldProfile(std::string profile, const std::vector<std::string>& helper,
                MonitorHistories& histories)
        : client_(helper), histories_(histories) {
        const ControlRequest request{.command = "profile", .profile = std::move(profile)};
        histories_.note(Date::now(), RecordedEventKind::request, request);
        note(client_.request(request));
    }
    ~HeldProfile() { note(client_.end()); }
    HeldProfile(const HeldProfile&) = delete;
    HeldProfile& operator=(const HeldProfile&) = delete;

    void look() { show(client_.request({.command = "status"}), false); }

private:
    // When it is no refusal, the fans are now run otherwise than before.
    void note(const ControlAnswer& answer) {
        show(answer, true);
        if (const auto* reply = std::get_if<ControlReply>(&answer)) {
            histories_.note(Date::now(), RecordedEventKind::reply, *reply);
            if (reply->ok) {
                histories_.noteChange(Date::now());
            }
        }
    }
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
    MonitorHistories& histories_;
};

bool write(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text << std::flush;
    if (!file) {
        std::fprintf(stderr, "monitor-example: cannot write %s\n", path.c_str());
    }
    return static_cast<bool>(file);
}

// Of the clock on the wall.
double localOffset(Date date) {
    const auto seconds = static_cast<std::time_t>(date.unixSeconds());
    std::tm local{};
    return ::localtime_r(&seconds, &local) ? static_cast<double>(local.tm_gmtoff) : 0;
}

std::string draw(const Memory& memory, const std::vector<std::string>& days) {
    std::vector<RecordedDay> recorded;
    for (std::size_t i = days.size(); i-- > 1;) {
        MonitorHistories earlier;
        DayFile::load(days[i], earlier);
        recorded.push_back(earlier.recorder().heatDay(CurveSensor::cpu));
    }
    recorded.push_back(memory.histories.recorder().heatDay(CurveSensor::cpu));
    return pageOf(memory.histories,
                  {memory.samples.back(), memory.report, std::move(recorded), localOffset});
}

}  // namespace

int main(int argc, char** argv) {
    std::string page;
    std::vector<std::string> days;
    for (; argc > 2; argc -= 2, argv += 2) {
        const std::string_view option = argv[1];
        if (option == "--page") {
            page = argv[2];
        } else if (option == "--day") {
            days.emplace_back(argv[2]);
        } else {
            break;
        }
    }
    constexpr int kProfile = 3, kHelper = 4;  // arguments
    const bool complete = argc == kProfile || argc > kHelper;
    const auto seconds = complete ? parseInt32(argv[1]) : std::nullopt;
    if (!seconds || *seconds < 1 || *seconds > kLongestSeconds) {
        std::fputs(
            "Usage: monitor-example [--page FILE.html] [--day FILE]... SECONDS FILE.csv "
            "[PROFILE HELPER...]\n",
            stderr);
        return 2;
    }
    fv_install_stop_handlers();
    try {
        Memory memory;
        if (!days.empty()) {
            DayFile::load(days.front(), memory.histories);
        }
        std::optional<HeldProfile> mode;
        if (argc > kHelper) {
            mode.emplace(argv[kProfile], std::vector<std::string>(argv + kHelper, argv + argc),
                         memory.histories);
        }
        watch(*seconds, memory, [&] { mode ? mode->look() : void(); });
        mode.reset();
        bool written = write(argv[2], Export::csv(memory.samples));
        if (!days.empty()) {
            DayFile::save(days.front(), memory.histories);
        }
        if (!page.empty() && !memory.samples.empty()) {
            written = write(page, draw(memory, days)) && written;
        }
        return written ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "monitor-example: %s\n", describe(error).c_str());
        return 1;
    }
}
