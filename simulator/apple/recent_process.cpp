#include "simulator/apple/recent_process.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace simulator {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// The coarse clock costs a tenth of the precise one, and its 4 ms are nothing to the longest age.
std::int64_t coarseNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

}  // namespace

RecentProcess::~RecentProcess() {
    forget();
}

const proc_bsdinfo* RecentProcess::recall(int pid) const {
    const bool usable = handle_ >= 0 && pid == pid_ &&
                        coarseNow() - readAt_ < kLongestAgeNanoseconds && stillLives() &&
                        hasSameUser();
    return usable ? &record_ : nullptr;
}

void RecentProcess::remember(int pid, const proc_bsdinfo& record) {
    if (pid != pid_ || !stillLives()) {
        forget();
        pid_ = pid;
        handle_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));  // -1 on old kernels
    }
    readAt_ = coarseNow();
    record_ = record;
}

// The handle becomes readable when the process ends, waited for by its parent or not.
bool RecentProcess::stillLives() const {
    pollfd ended{handle_, POLLIN, 0};
    return handle_ >= 0 && poll(&ended, 1, 0) == 0;
}

bool RecentProcess::hasSameUser() const {
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "/proc/%d", pid_);
    struct stat status {};
    return stat(path.data(), &status) == 0 && status.st_uid == record_.pbi_uid;
}

void RecentProcess::forget() {
    if (handle_ >= 0) {
        close(handle_);
        handle_ = -1;
    }
}

}  // namespace simulator
