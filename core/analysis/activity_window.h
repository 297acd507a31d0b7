// The last minute of observation, in steps that can be forgotten one by one.
#pragma once

#include <array>
#include <cstddef>

namespace ferovane {

// Cuts time into slots; whoever adds something up over the window keeps one sum per slot, so that
// the window slides without every sample of it being kept. One owner, no locking.
class ActivityWindow {
public:
    static constexpr double kLongestSeconds = 60;
    static constexpr double kSlotSeconds = 5;
    // So that a full window that slides is never shorter than 45 s; one interval may be longer.
    static constexpr double kLongestSlotSeconds = 15;
    // A closed slot is at least kSlotSeconds long, or with the next one more than
    // kLongestSlotSeconds; one more is being filled.
    static constexpr std::size_t kSlots =
        static_cast<std::size_t>(kLongestSeconds / kSlotSeconds) + 1;

    // Goes on by one interval, which belongs to slot() from then on. Slots are reused: when it
    // returns true, slot() is a new one and everybody's sum for it is to begin at zero.
    bool advance(double seconds);

    void clear();

    std::size_t slot() const { return newest_; }  // below kSlots
    double seconds() const;                       // length of the window, at most kLongestSeconds

    // The sum over the window of what was kept per slot.
    template <class Value, class Member>
    double sum(const std::array<Value, kSlots>& slots, Member Value::*member) const {
        double total = 0;
        for (std::size_t i = 0; i < used_; ++i) {
            total += slots[(newest_ + kSlots - i) % kSlots].*member;
        }
        return total;
    }

private:
    std::array<double, kSlots> lengths_{};  // seconds
    std::size_t newest_ = 0;
    std::size_t used_ = 0;  // slots in the window, the newest included
};

}  // namespace ferovane
