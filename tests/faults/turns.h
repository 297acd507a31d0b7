// The threads of the code under test take turns: one runs at a time, and time passes only when all
// of them wait. The same seed gives the same order, whatever the host is busy with.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace ferovane::testing {

// std::thread's own way to start and to join, which the linker redirects to Turns.
extern "C" void
__real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE(
    std::thread*, std::unique_ptr<std::thread::_State>, void (*)());
extern "C" void __real__ZNSt6thread4joinEv(std::thread*);
inline constexpr auto reallyStart =
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE;
inline constexpr auto reallyJoin = __real__ZNSt6thread4joinEv;

inline unsigned seedOfCase = 0;  // told when a run comes to no end

// While it lives, the thread that made it takes part, and every std::thread that a part-taker
// starts. Their waits for a condition, their joins and steady_clock are on this clock (the calls
// are redirected when the test program is linked).
class Turns {
public:
    static constexpr double kForever = std::numeric_limits<double>::infinity();

    // now: seconds; advance: lets so many pass. seed: of the order among threads that could all
    // run; 0 for first come, first served.
    Turns(std::function<double()> now, std::function<void(double)> advance, std::uint64_t seed);
    ~Turns();  // after awaitOthers()
    Turns(const Turns&) = delete;
    Turns& operator=(const Turns&) = delete;

    static Turns* ofThisThread();  // null when it takes no part
    [[noreturn]] static void giveUp(const char* why);

    double now() const { return now_(); }
    void sleep(double seconds) { waitFor(nullptr, now() + seconds); }
    void sometimesYield();  // with a seed: lets another thread that could run do so, now and then

    // Waits until somebody notifies `what`, or until `deadline`; false when that came first.
    bool waitFor(const void* what, double deadline);
    void notify(const void* what);

    void start(std::thread& thread, std::unique_ptr<std::thread::_State> state, void (*depend)());
    void join(std::thread& thread);
    void awaitOthers();  // until every other thread has ended

    std::function<void()> onStart;  // before a thread is started; may throw std::system_error

private:
    struct Part;
    class PartState;

    void passOn(Part& from, bool comesBack);
    Part& next();
    void end(Part& part);

    std::function<double()> now_;
    std::function<void(double)> advance_;
    std::mt19937_64 random_;
    bool shuffled_;
    std::uint64_t order_ = 0;
    std::vector<std::shared_ptr<Part>> parts_;
};

}  // namespace ferovane::testing
