// How long the processors were how busy, and when they were busy for long.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <optional>

#include "core/analysis/cpu_load_band.h"
#include "core/model/date.h"

namespace ferovane {

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
    static constexpr std::size_t kMostSpans = 3600;  // one a second

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
