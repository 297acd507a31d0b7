// How long the processors were how busy, and when they were busy for long.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <optional>
#include <string_view>
#include <tuple>

#include "core/analysis/observation_clock.h"
#include "core/model/date.h"
#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"

namespace ferovane {

enum class CpuLoadBand { idle, light, moderate, heavy, saturated };
inline constexpr std::size_t kCpuLoadBands = 5;

template <>
struct RawEnum<CpuLoadBand> {
    using enum CpuLoadBand;
    static constexpr std::array<RawCase<CpuLoadBand, int>, kCpuLoadBands> cases{
        {{idle, 0}, {light, 1}, {moderate, 2}, {heavy, 3}, {saturated, 4}}};
};

// Busy percentage of all processors at which each band above idle begins. Below 10 a machine does
// nothing that a user started; from 35 fans tend to be heard; at 90 there is nothing left to give.
inline constexpr double kLightLoadPercent = 10;
inline constexpr double kModerateLoadPercent = 35;
inline constexpr double kHeavyLoadPercent = 65;
inline constexpr double kSaturatedLoadPercent = 90;

// Absent for a usage that is absent or not finite.
std::optional<CpuLoadBand> cpuLoadBand(std::optional<double> usage);

std::string_view title(CpuLoadBand band);

// An uninterrupted stretch in one band.
struct CpuLoadSpan {
    Date from, to;
    CpuLoadBand band = CpuLoadBand::idle;

    bool operator==(const CpuLoadSpan&) const = default;
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("from", &CpuLoadSpan::from), jsonField("to", &CpuLoadSpan::to),
                          jsonField("band", &CpuLoadSpan::band)};
    }
};

// How much of five minutes was spent in each band; what is missing to the five, nobody looked.
struct CpuLoadStretch {
    Date from;                                    // a multiple of five minutes
    std::array<double, kCpuLoadBands> seconds{};  // by band

    bool operator==(const CpuLoadStretch&) const = default;
    static constexpr auto jsonFields() {
        return std::tuple{jsonField("from", &CpuLoadStretch::from),
                          jsonField("seconds", &CpuLoadStretch::seconds)};
    }
};

// The last hour of load in detail, and the last day in even stretches. A sample's usage is that of
// the time since the sample before, so it counts for that time; after a gap, or in a sample without
// usage, there is no such time. A clock that was set back takes with it what is dated later; the
// stretch in which it stands then is counted again, as far as the detail goes back. Bounded by hour
// and day and by kMostSpans; appending takes constant time on average. One owner, no locking.
class CpuLoadHistory {
public:
    static constexpr double kKeptSeconds = 60 * 60;
    static constexpr double kStretchSeconds = 5 * 60;  // of a CpuLoadStretch
    static constexpr double kDaySeconds = 24 * 60 * 60;
    static constexpr std::size_t kMostSpans = 3600;  // one a second

    explicit CpuLoadHistory(double longestGapSeconds = kLongestGapSeconds)
        : clock_(longestGapSeconds) {}

    // All that is kept, oldest first. Where one span does not begin when the one before ends,
    // nothing is known; a stretch of which nothing is known is not there.
    struct State {
        std::deque<CpuLoadSpan> spans;
        std::deque<CpuLoadStretch> day;

        bool operator==(const State&) const = default;
    };

    void append(Date date, std::optional<double> usage);

    // Valid until the next append or restore.
    const State& state() const { return state_; }
    const std::deque<CpuLoadSpan>& spans() const { return state_.spans; }
    const std::deque<CpuLoadStretch>& day() const { return state_.day; }

    // Goes on from there, after a gap. False, and nothing changes, for what no history tells.
    bool restore(State state);

    // Seconds spent in a band during the last hour.
    double seconds(CpuLoadBand band) const;

private:
    void count(CpuLoadSpan span);
    void forgetFrom(Date date);
    void forgetBefore(Date now);

    ObservationClock clock_;
    State state_;
};

}  // namespace ferovane
