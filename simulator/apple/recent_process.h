// The record of the process that a thread asks about again and again, at a kernel's price instead
// of that of four files under /proc.
#pragma once

#include <libproc.h>

#include <cstdint>

namespace simulator {

// One process at a time; not for use by several threads. The end of the process and a change of its
// user are noticed at once, everything else of the record may be as old as kLongestAge. A change of
// the caller's own user is not noticed until then either.
class RecentProcess {
public:
    static constexpr std::int64_t kLongestAgeNanoseconds = 100'000'000;

    RecentProcess() = default;
    ~RecentProcess();
    RecentProcess(const RecentProcess&) = delete;
    RecentProcess& operator=(const RecentProcess&) = delete;

    // Null when the files must be read; owned by this object, valid until the next call of it.
    const proc_bsdinfo* recall(int pid) const;

    void remember(int pid, const proc_bsdinfo& record);

private:
    bool stillLives() const;
    bool hasSameUser() const;
    void forget();

    int handle_ = -1;  // names the process itself, not its number, which may be given again
    int pid_ = 0;
    std::int64_t readAt_ = 0;
    proc_bsdinfo record_{};
};

}  // namespace simulator
