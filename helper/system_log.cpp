#include "helper/system_log.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "core/model/utf8.h"

namespace ferovane {
namespace {

constexpr std::size_t kQueuedLines = 16;
constexpr double kMinuteSeconds = 60;
constexpr std::chrono::milliseconds kSettlePatience{100};

}  // namespace

LogLine::LogLine(std::initializer_list<std::string_view> parts, bool failure) noexcept
    : failure_(failure) {
    char* end = text_.data();
    for (const std::string_view part : parts) {
        const auto room = static_cast<std::size_t>(text_.data() + kLongestLogLine - end);
        end = std::copy_n(part.data(), utf8Prefix(part, room).size(), end);
    }
    // One line stays one.
    std::replace_if(
        text_.data(), end, [](char c) { return c >= 0 && c < ' '; }, ' ');
}

struct SystemLog::Queue {
    explicit Queue(std::function<void(bool, const char*)> taker) : write(std::move(taker)) {}

    // Whether a line may be told at this time, of those of a minute; a failure always may.
    bool admits(double time, bool failure) {
        if (!(time - minuteBegan >= 0 && time - minuteBegan < kMinuteSeconds)) {
            minuteBegan = time;
            inMinute = 0;
        }
        return count < kQueuedLines && (failure || inMinute < kLogLinesPerMinute);
    }

    void push(const LogLine& line) {
        lines[(first + count++) % kQueuedLines].emplace(line);
        ++inMinute;
    }

    // On a thread of its own, until nothing is left.
    void writeAll() noexcept {
        std::unique_lock lock(mutex);
        while (count > 0) {
            const LogLine line = *lines[first];
            const unsigned missing = std::exchange(leftOut, 0);
            first = (first + 1) % kQueuedLines;
            --count;
            lock.unlock();
            if (missing > 0) {
                write(true, LogLine({"有 ", std::to_string(missing), " 行未记录"}).text());
            }
            write(line.failure(), line.text());
            lock.lock();
        }
        writing = false;
        settled.notify_all();
    }

    const std::function<void(bool, const char*)> write;
    std::mutex mutex;  // guards all that follows; held for moments
    std::condition_variable settled;
    std::array<std::optional<LogLine>, kQueuedLines> lines;
    std::size_t first = 0, count = 0;
    bool writing = false;  // the thread runs
    double minuteBegan = 0;
    int inMinute = 0;
    unsigned leftOut = 0;
};

SystemLog::SystemLog(std::function<void(bool, const char*)> write, std::function<double()> now)
    : now_(std::move(now)), queue_(std::make_shared<Queue>(std::move(write))) {}

SystemLog::~SystemLog() {
    settle();
}

void SystemLog::tell(const LogLine& line) noexcept {
    const double time = now_();
    const std::lock_guard lock(queue_->mutex);
    if (queue_->admits(time, line.failure())) {
        queue_->push(line);
    } else {
        ++queue_->leftOut;
    }
    if (queue_->count > 0 && !queue_->writing) {
        try {
            std::thread([queue = queue_] { queue->writeAll(); }).detach();
            queue_->writing = true;
        } catch (const std::exception&) {
            // No thread to be had: the next line tries again.
        }
    }
}

void SystemLog::settle() noexcept {
    std::unique_lock lock(queue_->mutex);
    queue_->settled.wait_for(lock, kSettlePatience, [this] { return !queue_->writing; });
}

}  // namespace ferovane
