#include "core/analysis/activity_window.h"

namespace ferovane {

bool ActivityWindow::advance(double seconds) {
    const bool opens = used_ == 0 || lengths_[newest_] >= kSlotSeconds ||
                       lengths_[newest_] + seconds > kLongestSlotSeconds;
    if (opens) {
        newest_ = (newest_ + 1) % kSlots;
        lengths_[newest_] = 0;
        ++used_;
    }
    lengths_[newest_] += seconds;
    while (used_ > 1 && this->seconds() > kLongestSeconds) {
        --used_;
    }
    return opens;
}

void ActivityWindow::clear() {
    used_ = 0;
}

double ActivityWindow::seconds() const {
    double total = 0;
    for (std::size_t i = 0; i < used_; ++i) {
        total += lengths_[(newest_ + kSlots - i) % kSlots];
    }
    return total;
}

}  // namespace ferovane
