// How long the processors were how busy, and when they were busy for long.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <optional>
#include <string_view>

#include "core/model/date.h"

namespace ferovane {

enum class CpuLoadBand { idle, light, moderate, heavy, saturated };

// Busy percentage of all processors at which each band above idle begins. Below 10 a machine does
// nothing that a user started; from 35 fans tend to be heard; at 90 there is nothing left to give.
inline constexpr double kLightLoadPercent = 10;
inline constexpr double kModerateLoadPercent = 35;
inline constexpr double kHeavyLoadPercent = 65;
inline constexpr double kSaturatedLoadPercent = 90;

// Absent for a usage that is absent or not finite.
std::optional<CpuLoadBand> cpuLoadBand(std::optional<double> usage);

std::string_view title(CpuLoadBand band);

inline constexpr std::size_t kCpuLoadBands = 5;

// How much of five minutes was spent in each band; what is missing to the five, nobody looked.
struct CpuLoadStretch {
    Date from;
    std::array<double, kCpuLoadBands> seconds{};  // by band

    bool operator==(const CpuLoadStretch&) const = default;
};

// An uninterrupted stretch in one band.
struct CpuLoadSpan {
    Date from, to;
    CpuLoadBand band = CpuLoadBand::idle;

    bool operator==(const CpuLoadSpan&) const = default;
};

// The last hour of load. A sample's usage is that of the time since the sample before, so it counts
// for that time; after a gap of more than 15 s, or a sample without usage, there is no such time.
// Bounded by the hour and by kMostSpans; appending takes constant time on average.
class CpuLoadHistory {
public:
    static constexpr double kKeptSeconds = 60 * 60;
    static constexpr double kStretchSeconds = 5 * 60;  // of a CpuLoadStretch
    static constexpr std::size_t kMostSpans = 3600;    // one a second

    void append(Date date, std::optional<double> usage);

    // Oldest first. Where one does not begin when the one before ends, nothing is known.
    const std::deque<CpuLoadSpan>& spans() const { return spans_; }

    // Seconds spent in a band during the kept time.
    double seconds(CpuLoadBand band) const;

private:
    void forgetBefore(Date earliest);

    std::deque<CpuLoadSpan> spans_;
    std::optional<Date> last_;
};

}  // namespace ferovane
