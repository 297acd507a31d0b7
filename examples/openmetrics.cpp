// An exporter for a fleet of Macs: one sample as OpenMetrics text, for a node exporter's textfile
// collector.
//
//     FerovaneHelper probe | openmetrics-example [FILE.prom]
//
// Reads what "probe" prints and writes the file anew, beside its old contents and then in their
// place, so that a collector never reads half of it; without a file it prints. Run it once a minute
// (launchd, cron) as any user who may write to the collector's directory. When it fails it says so,
// ends with status 1 and leaves the old file, whose ferovane_sample_timestamp_seconds then tells
// its age. Whatever could not be measured is missing, never 0. Only gauges and no timestamps,
// because a textfile collector reads no more of OpenMetrics than the older text format has. What is
// written names sensors and fans, and neither a machine nor a person: the collector adds the
// machine.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/shortest_number.h"
#include "core/model/snapshot.h"

namespace {

using namespace ferovane;

struct Sample {
    double value;
    std::vector<std::pair<std::string_view, std::string>> labels = {};
};
using Samples = std::vector<Sample>;

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        out += c == '\\' || c == '"' ? std::string{'\\', c} : c == '\n' ? "\\n" : std::string{c};
    }
    return out;
}

// One metric family; none without samples. A name with a unit ends in it.
std::string family(std::string_view name, std::string_view unit, std::string_view help,
                   const Samples& samples) {
    const std::string full = "ferovane_" + std::string(name);
    std::string out;
    const auto head = [&](std::string_view keyword, std::string_view text) {
        out.append("# ").append(keyword).append(" ").append(full).append(" ").append(text) += '\n';
    };
    if (!samples.empty()) {
        head("TYPE", "gauge");
        if (!unit.empty()) {
            head("UNIT", unit);
        }
        head("HELP", help);
    }
    for (const Sample& sample : samples) {
        std::string labels;
        for (const auto& [label, value] : sample.labels) {
            labels.append(labels.empty() ? "{" : ",").append(label);
            labels.append("=\"").append(escaped(value)).append("\"");
        }
        std::array<char, kShortestMaxLength> number{};
        char* const end = writeShortest(sample.value, number.data());
        out.append(full).append(labels).append(labels.empty() ? " " : "} ");
        out.append(number.data(), end) += '\n';
    }
    return out;
}

// What is absent gives no sample.
template <class T>
Samples one(const std::optional<T>& value) {
    return value ? Samples{{static_cast<double>(*value)}} : Samples{};
}
Samples one(double value) {
    return {{value}};
}
Samples ratio(std::optional<double> percent) {
    return percent ? one(*percent / 100) : Samples{};
}

std::string_view word(SensorCategory category) {
    switch (category) {
        case SensorCategory::cpu:
            return "cpu";
        case SensorCategory::gpu:
            return "gpu";
        case SensorCategory::storage:
            return "storage";
        case SensorCategory::battery:
            return "battery";
        case SensorCategory::other:
            break;
    }
    return "other";
}

std::string sensors(const Snapshot& snapshot) {
    Samples celsius, names, watts, volts, amperes;
    for (const SensorReading& sensor : snapshot.sensors) {
        celsius.push_back(
            {sensor.celsius,
             {{"sensor", sensor.key}, {"category", std::string(word(sensor.category()))}}});
        names.push_back({1, {{"sensor", sensor.key}, {"label", sensor.label}}});
    }
    for (const auto& sensor :
         snapshot.additionalSensors.value_or(std::vector<HardwareSensorReading>())) {
        Samples* const samples = sensor.kind == HardwareSensorKind::power     ? &watts
                                 : sensor.kind == HardwareSensorKind::voltage ? &volts
                                 : sensor.kind == HardwareSensorKind::current ? &amperes
                                                                              : nullptr;
        if (samples != nullptr) {
            samples->push_back({sensor.value, {{"sensor", sensor.key}}});
            names.push_back({1, {{"sensor", sensor.key}, {"label", sensor.label}}});
        }
    }
    return family("sensor_temperature_celsius", "celsius", "Temperature by controller key.",
                  celsius) +
           family("sensor_power_watts", "watts", "Power by controller key.", watts) +
           family("sensor_voltage_volts", "volts", "Voltage by controller key.", volts) +
           family("sensor_current_amperes", "amperes", "Current by controller key.", amperes) +
           family("sensor_label", "", "A sensor's name as a user reads it; always 1.", names);
}

std::string fans(const Snapshot& snapshot) {
    Samples rpm, minimum, maximum, manual, controllable;
    for (const FanReading& fan : snapshot.fans) {
        const auto add = [&](Samples& samples, const auto& value) {
            for (Sample sample : one(value)) {
                sample.labels = {{"fan", std::to_string(fan.id)}};
                samples.push_back(std::move(sample));
            }
        };
        add(rpm, fan.rpm);
        add(minimum, fan.minimum);
        add(maximum, fan.maximum);
        add(manual, fan.manual);
        add(controllable, fan.controllable);
    }
    return family("fan_speed_rpm", "rpm", "Speed of a fan.", rpm) +
           family("fan_speed_minimum_rpm", "rpm", "Lowest rated speed.", minimum) +
           family("fan_speed_maximum_rpm", "rpm", "Highest rated speed.", maximum) +
           family("fan_manual", "", "1 when a program holds the fan, 0 when the system does.",
                  manual) +
           family("fan_controllable", "", "1 when the fan can be given a speed.", controllable);
}

std::string openMetrics(const Snapshot& snapshot) {
    Samples drivers;
    for (const auto& [state, raw] : RawEnum<TurboState>::cases) {
        drivers.push_back({state == snapshot.turbo ? 1.0 : 0.0, {{"state", std::string(raw)}}});
    }
    std::optional<int> pressure;
    if (snapshot.memoryPressure) {
        pressure = rawValue(*snapshot.memoryPressure);
    }
    return family("sample_timestamp_seconds", "seconds", "When the sample was taken, in Unix time.",
                  one(snapshot.date.unixSeconds())) +
           family("cpu_usage_ratio", "ratio", "Busy part of all processors.",
                  ratio(snapshot.cpuUsage)) +
           family("cpu_speed_limit_ratio", "ratio", "Processor speed that the system allows.",
                  ratio(snapshot.speedLimit)) +
           family("cpu_scheduler_limit_ratio", "ratio", "Processor time that the system allows.",
                  ratio(snapshot.schedulerLimit)) +
           family("cpus_available", "", "Processors that the system lets run.",
                  one(snapshot.availableCPUs)) +
           family("cpus_installed", "", "Processors of the machine.", one(snapshot.totalCPUs)) +
           family("thermal_state", "", "0 nominal, 1 fair, 2 serious, 3 critical.",
                  one(snapshot.thermalState)) +
           family("thermal_warning_level", "", "The system's thermal warning level.",
                  one(snapshot.thermalWarning)) +
           family("memory_pressure_level", "", "1 normal, 2 warning, 4 critical.", one(pressure)) +
           family("turbo_driver_state", "", "1 for the state that holds.", drivers) +
           family("on_ac_power", "", "1 on mains, 0 on battery.", one(snapshot.acPower)) +
           family("low_power_mode", "", "1 when low-power mode is on.", one(snapshot.lowPower)) +
           family("controller_available", "", "1 when the controller could be opened.",
                  one(snapshot.smcAvailable)) +
           fans(snapshot) + sensors(snapshot) + "# EOF\n";
}

void write(const std::filesystem::path& file, const std::string& text) {
    if (std::filesystem::exists(std::filesystem::symlink_status(file)) &&
        !std::filesystem::is_regular_file(std::filesystem::symlink_status(file))) {
        throw ScopeError("不是普通文件：" + file.string());
    }
    // A collector reads files of its own ending only, so not this one.
    const std::filesystem::path fresh = file.string() + "." + std::to_string(getpid());
    std::ofstream stream(fresh, std::ios::binary);
    stream << text << std::flush;
    stream.close();
    std::error_code failure;
    if (stream) {
        std::filesystem::rename(fresh, file, failure);
    }
    if (!stream || failure) {
        std::filesystem::remove(fresh, failure);
        throw ScopeError("无法写入 " + file.string());
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string json(std::istreambuf_iterator<char>(std::cin), {});
        const std::string text = openMetrics(decodeJson<Snapshot>(json, JsonDates::iso8601));
        if (argc > 1) {
            write(argv[1], text);
        } else {
            std::cout << text << std::flush;
        }
        return std::cout ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << userText(error) << '\n';
        return 1;
    }
}
