// The last half hour of temperature and load, cut into one line per uninterrupted run of a mode.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "core/model/date.h"

namespace ferovane {

// One sample. Its segment and date together tell it from every other.
struct ModeRecord {
    Date date;
    std::string mode;        // the mode's label
    double temperature = 0;  // degrees Celsius
    std::optional<double> load;
    int segment = 0;
    double elapsed = 0;  // seconds since the segment began
    std::optional<bool> turboDisabled;

    std::string series() const;  // the key of one chart line
    bool operator==(const ModeRecord&) const = default;
};

// A plain value without a clock: every sample brings its date.
class ModeHistory {
public:
    // Forgets what lies more than 30 minutes before `date`, then records the sample. One without a
    // mode or a finite temperature records nothing and ends the segment.
    void append(Date date, const std::optional<std::string>& mode,
                const std::optional<std::string>& session, std::optional<double> temperature,
                std::optional<double> load);

    // Oldest first, that is, in the order of appending.
    const std::deque<ModeRecord>& records() const { return records_; }

    bool operator==(const ModeHistory&) const = default;

private:
    bool continues(Date date, const std::string& mode,
                   const std::optional<std::string>& session) const;

    std::deque<ModeRecord> records_;
    std::optional<std::string> lastMode_;
    std::optional<std::string> lastSession_;
    std::optional<Date> lastDate_;
    Date origin_;  // start of the current segment
    int segment_ = 0;
};

}  // namespace ferovane
