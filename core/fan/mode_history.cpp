#include "core/fan/mode_history.h"

#include <cmath>

namespace ferovane {
namespace {

constexpr double kKeptSeconds = 1800;
constexpr double kLongestGapSeconds = 15;  // a longer one would draw a line over missing samples

}  // namespace

std::string ModeRecord::series() const {
    return mode + "-" + std::to_string(segment);
}

void ModeHistory::append(Date date, const std::optional<std::string>& mode,
                         const std::optional<std::string>& session,
                         std::optional<double> temperature, std::optional<double> load) {
    // All are looked at: where the clock was set back, old records stand behind newer ones.
    std::erase_if(records_,
                  [&](const ModeRecord& record) { return record.date < date - kKeptSeconds; });
    if (!mode || !temperature || !std::isfinite(*temperature)) {
        lastMode_.reset();
        lastDate_.reset();
        return;
    }
    if (!continues(date, *mode, session)) {
        ++segment_;
        origin_ = date;
    }
    records_.push_back({date, *mode, *temperature, load, segment_, date - origin_, std::nullopt});
    lastMode_ = mode;
    lastSession_ = session;
    lastDate_ = date;
}

bool ModeHistory::continues(Date date, const std::string& mode,
                            const std::optional<std::string>& session) const {
    if (!lastMode_ || *lastMode_ != mode || lastSession_ != session || !lastDate_) {
        return false;
    }
    const double gap = date - *lastDate_;
    return gap > 0 && gap <= kLongestGapSeconds;
}

}  // namespace ferovane
