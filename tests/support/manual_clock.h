// A clock that only moves when it is told to.
#pragma once

#include <functional>
#include <map>
#include <utility>

namespace ferovane::testing {

class ManualClock {
public:
    double now() const { return time_; }

    // Moves on and runs what has become due, in order of time.
    void advance(double seconds) {
        time_ += seconds;
        while (!events_.empty() && events_.begin()->first <= time_) {
            events_.extract(events_.begin()).mapped()();
        }
    }

    // Has `event` happen this many seconds from now.
    void in(double seconds, std::function<void()> event) {
        events_.emplace(time_ + seconds, std::move(event));
    }

    void jump(double seconds) { time_ += seconds; }  // past every event, as a clock that is set

private:
    double time_ = 1000;  // anything but zero, so that a forgotten start is seen
    std::multimap<double, std::function<void()>> events_;
};

}  // namespace ferovane::testing
