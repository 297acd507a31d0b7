#include "core/fan/mode_history.h"

#include <algorithm>
#include <cmath>

namespace ferovane {
namespace {

constexpr double kKeptSeconds = 1800;
constexpr double kLongestGapSeconds = 15;  // a longer one would draw a line over missing samples

bool isOlder(const ModeRecord& left, const ModeRecord& right) {
    return left.date < right.date;
}

}  // namespace

std::string ModeRecord::series() const {
    return mode + "-" + std::to_string(segment);
}

void ModeHistory::append(Date date, const std::optional<std::string>& mode,
                         const std::optional<std::string>& session,
                         std::optional<double> temperature, std::optional<double> load) {
    forgetBefore(date - kKeptSeconds);
    if (!mode || !temperature || !std::isfinite(*temperature)) {
        lastMode_.reset();
        lastDate_.reset();
        return;
    }
    if (!continues(date, *mode, session)) {
        ++segment_;
        origin_ = date;
    }
    if (!records_.empty() && date < records_.back().date) {
        inOrder_ = false;
    }
    records_.push_back({date, *mode, *temperature, load, segment_, date - origin_, std::nullopt});
    lastMode_ = mode;
    lastSession_ = session;
    lastDate_ = date;
}

void ModeHistory::forgetBefore(Date earliest) {
    if (inOrder_) {
        while (!records_.empty() && records_.front().date < earliest) {
            records_.pop_front();
        }
        return;
    }
    // The clock was set back: old records may stand behind newer ones.
    std::erase_if(records_, [&](const ModeRecord& record) { return record.date < earliest; });
    inOrder_ = std::is_sorted(records_.begin(), records_.end(), isOlder);
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
