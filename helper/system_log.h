// What a root process did, a line each, for whoever reads the system's log afterwards.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string_view>

namespace ferovane {

// One line. Making one needs no memory.
class LogLine {
public:
    // The parts one after the other, without what exceeds kLongestLogLine. failure: something was
    // not done, or not confirmed.
    LogLine(std::initializer_list<std::string_view> parts, bool failure = false) noexcept;

    const char* text() const { return text_.data(); }
    bool failure() const { return failure_; }

private:
    static constexpr std::size_t kLongestLogLine = 200;  // bytes; some sixty Chinese characters

    std::array<char, kLongestLogLine + 1> text_{};
    bool failure_ = false;
};

// Takes a line; never waits and never throws.
using Log = std::function<void(const LogLine&)>;
inline const Log kSilence = [](const LogLine&) {};

// The beginning of a line that several commands write.
inline constexpr const char* kCallerRefused = "已拒绝调用：";

// Keeps the log from delaying anything: lines wait in a queue of fixed size for a thread that ends
// with the last of them. More than kLogLinesPerMinute, or than fit into the queue, are left out and
// counted in a line of their own.
class SystemLog {
public:
    static constexpr int kLogLinesPerMinute = 60;

    // write: hands a line to the log, on a thread of ours, and may wait; one call at a time. now:
    // monotonic seconds.
    SystemLog(std::function<void(bool failure, const char* line)> write,
              std::function<double()> now);
    // Settles.
    ~SystemLog();
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    // Any thread. Without memory or threads the line waits for the next one.
    void tell(const LogLine& line) noexcept;

    // Waits until the log has taken every line, a tenth of a second at most.
    void settle() noexcept;

private:
    struct Queue;

    const std::function<double()> now_;
    const std::shared_ptr<Queue> queue_;  // also the thread's, which may outlive this
};

}  // namespace ferovane
