#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <limits>
#include <thread>

#include "shim/fv.h"
#include "tests/shim/child_process.h"

namespace {

// Longer than any test waits: a pause of this length ends because of a signal or not at all.
constexpr double kLongSeconds = 60.0;

// A pause looks at the flag at least every 0.2 s; the rest is for a busy host.
constexpr double kSliceAndSlackSeconds = 0.9;

double secondsOf(const std::function<void()>& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(StopSignalsTest, SetAFlagAndEndAPauseAndABlockingRead) {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        tests::Pipe ready;
        tests::Pipe silent;
        tests::ChildProcess child([&] {
            fv_install_stop_handlers();
            fv_install_stop_handlers();
            const bool before = fv_should_stop();
            ready.tell();
            char byte = 0;
            const bool interrupted = read(silent.readEnd(), &byte, 1) == -1 && errno == EINTR;
            return !before && interrupted && fv_pause(kLongSeconds) && fv_should_stop() ? 0 : 1;
        });
        ready.await();
        // Sent again and again, as the first may come before the child waits.
        for (int attempt = 0; attempt < 1'000 && !child.ended(); ++attempt) {
            kill(child.pid(), signal);
            usleep(10'000);
        }
        ASSERT_TRUE(child.ended()) << signal;
        EXPECT_EQ(child.exitStatus(), 0) << signal;
    }
}

TEST(PauseTest, LastsItsTimeThroughASignalThatIsNotAStop) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  signal(SIGALRM, [](int) {});
                  ualarm(20'000, 20'000);
                  bool stopped = true;
                  const double seconds = secondsOf([&] { stopped = fv_pause(0.25); });
                  return !stopped && seconds >= 0.25 ? 0 : 1;
              }),
              0);
}

TEST(PauseTest, NothingToWaitForReturnsAtOnce) {
    const double nothing[] = {0.0, -1.0, -std::numeric_limits<double>::infinity(),
                              std::numeric_limits<double>::quiet_NaN()};
    for (const double pause : nothing) {
        bool stopped = true;
        EXPECT_LT(secondsOf([&] { stopped = fv_pause(pause); }), 0.1) << pause;
        EXPECT_FALSE(stopped) << pause;
    }
}

// Whoever starts a root helper may have done so with signals blocked or ignored.
TEST(StopSignalsTest, ArriveAlsoWhenInheritedBlockedOrIgnored) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_BLOCK, &all, nullptr);
                  signal(SIGHUP, SIG_IGN);
                  fv_install_stop_handlers();
                  raise(SIGHUP);
                  return fv_should_stop() ? 0 : 1;
              }),
              0);
}

// A signal that another thread receives interrupts nobody's sleep: the pause must look by itself.
TEST(PauseTest, NoticesASignalThatAnotherThreadReceived) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  fv_install_stop_handlers();
                  bool stopped = false;
                  double seconds = 0;
                  std::thread pausing([&] {
                      sigset_t all;
                      sigfillset(&all);
                      pthread_sigmask(SIG_BLOCK, &all, nullptr);
                      seconds = secondsOf([&] { stopped = fv_pause(kLongSeconds); });
                  });
                  usleep(50'000);
                  raise(SIGTERM);
                  pausing.join();
                  return stopped && seconds < kSliceAndSlackSeconds ? 0 : 1;
              }),
              0);
}

}  // namespace
