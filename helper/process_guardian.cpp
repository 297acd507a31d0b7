#include "helper/process_guardian.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>
#include <utility>

#include "core/model/scope_error.h"
#include "helper/fan_return.h"
#include "shim/fv.h"

namespace ferovane {
namespace {

constexpr const char* kNoGuardian = "无法启动风扇守护进程，未接管风扇";
constexpr const char* kGuardianLost = "风扇守护进程意外结束且无法重新启动，已停止风扇控制";
constexpr const char* kUnguardedTool = "无法启动守护进程，未运行系统工具";

// A released guardian is gone within a millisecond or two, unless the machine is very busy.
constexpr std::chrono::milliseconds kReleasePause{1};
constexpr std::chrono::seconds kReleasePatience{1};

// So is one that is started ready.
constexpr int kStandPatienceMilliseconds = 5000;

// Between attempts to replace one; doubles, to some 600 milliseconds together.
constexpr double kFirstStartPauseSeconds = 0.005;

// Its end: it says nothing once it stands.
void awaitEnd(int socket) {
    char word = 0;
    while (::recv(socket, &word, 1, MSG_PEEK) < 0 && errno == EINTR) {
    }
}

// Whether the guardian says that it stands before it ends, or time is up.
bool standsSoon(int socket) {
    pollfd waiting{socket, POLLIN, 0};
    int ready = -1;
    do {
        ready = ::poll(&waiting, 1, kStandPatienceMilliseconds);
    } while (ready < 0 && errno == EINTR);
    char word = 0;
    return ready > 0 && ::read(socket, &word, 1) == 1 && word == kGuardianStands;
}

// A guardian that somebody has stopped does not end, and is left to itself then: whoever waits for
// the helper must not wait for that.
void reapSoon(pid_t guardian) {
    const auto deadline = std::chrono::steady_clock::now() + kReleasePatience;
    while (::waitpid(guardian, nullptr, WNOHANG) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(kReleasePause);
    }
}

}  // namespace

// Our end. Whatever the helper starts is given no descriptor that is not named.
struct ProcessGuardian::Socket {
    explicit Socket(int end) : descriptor(end) {}
    ~Socket() { ::close(descriptor); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    const int descriptor;
};

ProcessGuardian::ProcessGuardian(std::function<std::string()> helperPath)
    : helperPath_(std::move(helperPath)) {
    if (!start()) {
        throw ScopeError(kNoGuardian, ResultCode::resources);
    }
    try {
        watcher_ = std::thread([this] { watch(); });
    } catch (const std::exception&) {
        release();
        throw ScopeError(kNoGuardian, ResultCode::resources);
    }
}

ProcessGuardian::~ProcessGuardian() {
    {
        const std::lock_guard lock(mutex_);
        over_ = true;
        release();
    }
    watcher_.join();
}

// On a thread of its own.
void ProcessGuardian::watch() noexcept {
    std::unique_lock lock(mutex_);
    while (!over_) {
        const std::shared_ptr<Socket> watched = socket_;
        if (!watched) {
            changed_.wait(lock);
            continue;
        }
        lock.unlock();
        awaitEnd(watched->descriptor);
        lock.lock();
        if (socket_ == watched) {
            end();
            replace(lock);
        }
    }
}

// While there is something to guard; whoever killed the last one may have hit the next one too.
void ProcessGuardian::replace(std::unique_lock<std::mutex>& lock) noexcept {
    returnPatiently(
        kFirstStartPauseSeconds, [this] { return charge_ == GuardianCharge{} || charge(charge_); },
        [&](double seconds) {
            changed_.wait_for(lock, std::chrono::duration<double>(seconds));
            return over_;
        });
}

void ProcessGuardian::fansHeld() {
    const std::lock_guard lock(mutex_);
    if (!charge({1, charge_.toolGroup})) {
        throw ScopeError(charge_.fansHeld == 0 ? kNoGuardian : kGuardianLost,
                         ResultCode::resources);
    }
}

void ProcessGuardian::fansReturned() noexcept {
    const std::lock_guard lock(mutex_);
    relieve({0, charge_.toolGroup});
}

void ProcessGuardian::takeOver() noexcept {
    const std::lock_guard lock(mutex_);
    release();
    charge_.fansHeld = 0;
}

void ProcessGuardian::toolStarted(pid_t group) {
    const std::lock_guard lock(mutex_);
    if (charge_.toolGroup != 0 || !charge({charge_.fansHeld, group})) {
        throw ScopeError(kUnguardedTool, ResultCode::resources);
    }
}

void ProcessGuardian::toolEnded() noexcept {
    const std::lock_guard lock(mutex_);
    relieve({charge_.fansHeld, 0});
}

// Whether a living guardian knows; if not, nothing has changed.
bool ProcessGuardian::charge(const GuardianCharge& charge) noexcept {
    const GuardianCharge before = std::exchange(charge_, charge);
    if (isAlive() && tell()) {
        return true;
    }
    end();
    if (!start()) {
        charge_ = before;
        return false;
    }
    return true;
}

// One that cannot be told must not hand back later what is nobody's any more.
void ProcessGuardian::relieve(const GuardianCharge& charge) noexcept {
    charge_ = charge;
    if (!tell()) {
        end();
        if (charge_ != GuardianCharge{}) {
            start();
        }
    }
}

bool ProcessGuardian::isAlive() const noexcept {
    char word = 0;
    return socket_ && ::recv(socket_->descriptor, &word, 1, MSG_PEEK | MSG_DONTWAIT) < 0 &&
           errno == EAGAIN;
}

// False also when it has been stopped for so long that nothing more fits into the socket.
bool ProcessGuardian::tell() noexcept {
    if (told_ != charge_) {
        const ssize_t sent =
            socket_ ? ::send(socket_->descriptor, &charge_, sizeof charge_, MSG_DONTWAIT) : -1;
        if (sent != sizeof charge_) {
            return false;
        }
        told_ = charge_;
    }
    return true;
}

// Starts one that knows the charge.
bool ProcessGuardian::start() noexcept {
    int ends[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        return false;
    }
    std::int32_t pid = 0;
    bool started = false;
    told_ = {};
    try {
        socket_ = std::make_shared<Socket>(ends[0]);
        // The charge waits for it in the socket, and is found there even when we are gone by then.
        started =
            tell() && fv_spawn_companion(helperPath_().c_str(), kGuardianName, ends[1], &pid) == 0;
    } catch (const std::exception&) {
        // No memory, or nobody knows where the file is.
    }
    if (!socket_) {
        ::close(ends[0]);
    }
    ::close(ends[1]);
    pid_ = started ? pid : -1;
    if (!started || !standsSoon(socket_->descriptor)) {
        end();
        return false;
    }
    changed_.notify_all();
    return true;
}

// One that has nothing to do ends at once and is waited for; one that has must not be.
void ProcessGuardian::release() noexcept {
    hangUp();
    if (pid_ > 0 && charge_.fansHeld == 0) {
        reapSoon(pid_);
    }
    pid_ = -1;
}

// Of one that is lost, or cannot be reached any more, and must not do what it was told long ago.
void ProcessGuardian::end() noexcept {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
    }
    hangUp();
    if (pid_ > 0) {
        reapSoon(pid_);
    }
    pid_ = -1;
}

// Which the guardian notices, and the thread; whoever drops the socket last closes it.
void ProcessGuardian::hangUp() noexcept {
    if (socket_) {
        ::shutdown(socket_->descriptor, SHUT_RDWR);
    }
    socket_.reset();
    changed_.notify_all();
}

}  // namespace ferovane
