// A control session on a thread of its own, spoken to over real pipes, in milliseconds.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "core/model/scope_error.h"
#include "helper/control_session.h"
#include "tests/helper/helper_world.h"
#include "tests/support/pipe.h"

namespace ferovane::testing {

inline constexpr double kReplySeconds = 20;

inline bool eventually(const std::function<bool()>& holds) {
    for (int i = 0; i < 2000 && !holds(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return holds();
}

// Fills a pipe to its last byte: the next write to it blocks, however short.
inline void fillPipe(int writingEnd) {
    ::fcntl(writingEnd, F_SETFL, O_NONBLOCK);
    const std::string filling(4096, 'x');
    for (std::size_t size = filling.size(); size > 0; size /= 2) {
        while (::write(writingEnd, filling.data(), size) > 0) {
        }
    }
    ::fcntl(writingEnd, F_SETFL, 0);
}

class SessionWorld {
public:
    explicit SessionWorld(simulator::SimulatedMac machine = simulator::intelMac(2),
                          bool appleSilicon = false, double watchdogPoll = 0.005)
        : world(std::move(machine), appleSilicon) {
        world.mac.followHostClock();
        HelperEnvironment& environment = world.environment;
        environment.inputDescriptor = requests.ends[0];
        environment.outputDescriptor = replies.ends[1];
        environment.now = [this] { return hostSeconds() + slept; };
        environment.uptime = hostSeconds;
        environment.timings = {.request = 20,
                               .watchdogPoll = watchdogPoll,
                               .leasePoll = 0.005,
                               .leaseRound = 0.02,
                               .leaseEnd = 10,
                               .confirmation = 10,
                               .profile = 1800,
                               .fanTest = 0.1};
        environment.endProcess = [this](int status) { endedWith = status; };
        environment.makeSMC = [appleSilicon, now = environment.now] {
            return std::make_unique<SMC>(SMC::Surroundings{now, sleepShortly, appleSilicon});
        };
        thread_ = std::thread([this] { serve(); });
    }
    ~SessionWorld() { end(); }

    // The reply to one line as it stands.
    ControlReply ask(const std::string& line) {
        tell(line + "\n");
        return reply();
    }
    ControlReply command(const std::string& word) { return ask("{\"command\":\"" + word + "\"}"); }
    ControlReply profile(const std::string& word) {
        return ask("{\"command\":\"profile\",\"profile\":\"" + word + "\"}");
    }
    void tell(const std::string& bytes) {
        if (::write(requests.ends[1], bytes.data(), bytes.size()) !=
            static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("the session does not listen");
        }
    }
    ControlReply reply() {
        const auto line = channel_.readLine(kReplySeconds);
        if (!line) {
            throw std::runtime_error("the session has ended");
        }
        return decodeJson<ControlReply>(*line);
    }

    // Closes the session's input and waits for it; what it failed with, or nothing.
    std::string end() {
        requests.closeEnd(1);
        if (thread_.joinable()) {
            thread_.join();
        }
        return failure;
    }
    // Waits until the session's process would have ended from the watchdog.
    bool endsItself() {
        return eventually([this] { return endedWith >= 0; }) && endedWith == 0;
    }

    HelperWorld world;
    Pipe requests, replies;
    std::string failure;
    std::atomic<int> endedWith = -1;
    std::atomic<double> slept = 0;  // seconds that the machine was asleep

private:
    static double hostSeconds() {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration<double>(now).count();
    }
    // A tenth of what is asked for: a write that settles late is still waited for, and soon had.
    static void sleepShortly(double seconds) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds / 10));
    }
    void serve() {
        try {
            runControlSession(
                {"FerovaneHelper", "serve", std::to_string(kOwnerPid), std::to_string(kOwnerUid)},
                world.environment);
        } catch (const ScopeError& error) {
            failure = error.message();
        }
        replies.closeEnd(1);
    }

    ControlChannel channel_{replies.ends[0], hostSeconds};
    std::thread thread_;
};

}  // namespace ferovane::testing
