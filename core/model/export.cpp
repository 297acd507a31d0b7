#include "core/model/export.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

#include "core/model/number_text.h"

namespace ferovane::Export {
namespace {

constexpr std::string_view kHeader =
    "timestamp,cpu_percent,cpu_temperature_c,speed_limit_percent,scheduler_limit_percent,"
    "available_cpus,total_cpus,thermal_state,thermal_warning,turbo_driver,ac_power,low_power,"
    "fan0_rpm,fan1_rpm";

// A row at its longest: a date, four decimals, six integers, a turbo state, two flags and commas.
constexpr std::size_t kIntegerMaxLength = 11;
constexpr std::size_t kTurboMaxLength = 32;
constexpr std::size_t kRowMaxLength =
    kIso8601MaxLength + 4 * kFixed2MaxLength + 6 * kIntegerMaxLength + kTurboMaxLength + 2 + 14;

// What a usual row takes, so that a long table is seldom moved while it grows.
constexpr std::size_t kUsualRowLength = 96;

// Writes fields one after the other into a row that is long enough for all.
class Row {
public:
    explicit Row(char* out) : out_(out) {}

    char* end() const { return out_; }

    void date(Date value) { out_ = writeIso8601(value, out_); }
    void text(std::string_view value) { out_ = std::copy(value.begin(), value.end(), comma()); }
    void integer(int value) {
        char* const begin = comma();
        out_ = std::to_chars(begin, begin + kIntegerMaxLength, value).ptr;
    }
    void integer(std::optional<int> value) { value ? integer(*value) : text({}); }
    void decimal(std::optional<double> value) {
        char* const begin = comma();
        out_ = value && std::isfinite(*value) ? writeFixed2(*value, begin) : begin;
    }
    void flag(std::optional<bool> value) { text(value ? (*value ? "1" : "0") : ""); }

private:
    char* comma() {
        *out_ = ',';
        return out_ + 1;
    }

    char* out_;
};

std::optional<double> rpmOf(const Snapshot& snapshot, std::size_t fan) {
    return fan < snapshot.fans.size() ? snapshot.fans[fan].rpm : std::nullopt;
}

char* writeRow(const Snapshot& snapshot, char* out) {
    Row row(out);
    row.date(snapshot.date);
    row.decimal(snapshot.cpuUsage);
    row.decimal(snapshot.cpuTemperature());
    row.integer(snapshot.speedLimit);
    row.integer(snapshot.schedulerLimit);
    row.integer(snapshot.availableCPUs);
    row.integer(snapshot.totalCPUs);
    row.integer(snapshot.thermalState);
    row.integer(snapshot.thermalWarning);
    row.text(rawValue(snapshot.turbo));
    row.flag(snapshot.acPower);
    row.flag(snapshot.lowPower);
    row.decimal(rpmOf(snapshot, 0));
    row.decimal(rpmOf(snapshot, 1));
    return row.end();
}

}  // namespace

std::string csv(std::span<const Snapshot> snapshots) {
    std::string table;
    table.reserve(kHeader.size() + snapshots.size() * kUsualRowLength);
    table += kHeader;
    std::array<char, 1 + kRowMaxLength> line;
    line[0] = '\n';
    for (const Snapshot& snapshot : snapshots) {
        table.append(line.data(), writeRow(snapshot, line.data() + 1));
    }
    return table;
}

}  // namespace ferovane::Export
