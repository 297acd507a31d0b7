#include "core/control/control_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <limits>
#include <map>
#include <thread>

#include "core/model/scope_error.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

using testing::Dice;

constexpr double kNotLong = 5;  // seconds; only a failing test waits for it
constexpr double kShort = 0.02;

double uptime() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

using Dictionary = std::map<std::string, double>;

// A value whose JSON has this many bytes.
Dictionary ofSize(std::size_t bytes) {
    return {{std::string(bytes - std::string_view(R"({"":1})").size(), 'k'), 1}};
}

// What the channel reads is written to `peer`, and the other way round.
class ControlChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        own_ = ends[0];
        peer_ = ends[1];
        const int roomy = 65536;  // a whole line has to wait in it until the test reads
        for (const int end : ends) {
            setsockopt(end, SOL_SOCKET, SO_SNDBUF, &roomy, sizeof roomy);
            setsockopt(end, SOL_SOCKET, SO_RCVBUF, &roomy, sizeof roomy);
        }
        std::signal(SIGPIPE, SIG_IGN);
    }
    void TearDown() override {
        close(own_);
        closePeer();
    }

    void closePeer() {
        if (peer_ >= 0) {
            close(peer_);
            peer_ = -1;
        }
    }
    void write(std::string_view bytes) const {
        ASSERT_EQ(::write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Reads until the peer has closed or `bytes` have come.
    std::string readAtPeer(std::size_t bytes) const {
        std::string all;
        char chunk[3000];
        while (all.size() < bytes) {
            const ssize_t count = ::read(peer_, chunk, std::min(sizeof chunk, bytes - all.size()));
            if (count <= 0) {
                break;
            }
            all.append(chunk, static_cast<std::size_t>(count));
        }
        return all;
    }
    bool peerHasBytes() const {
        pollfd waiting{peer_, POLLIN, 0};
        return poll(&waiting, 1, 0) != 0;
    }

    int own_ = -1;
    int peer_ = -1;
};

// What readLine gives or says, from the bytes that arrived and nothing else.
struct ChannelModel {
    std::string arrived, taken;  // by the system; by the channel
    bool closed = false;

    std::string read(bool mayWait) {
        while (true) {
            const std::size_t end = taken.find('\n');
            if (std::min(end, taken.size()) > 16383) {
                return "error 控制消息过长";
            }
            if (end != taken.npos) {
                const std::string line = taken.substr(0, end);
                taken.erase(0, end + 1);
                return "line " + line;
            }
            if (!mayWait) {
                return "error 辅助进程响应超时";
            }
            if (arrived.empty()) {
                return closed ? "end" : "error 辅助进程通信中断或超时";
            }
            taken += arrived.substr(0, 4096);
            arrived.erase(0, 4096);
        }
    }
};

std::string outcome(ControlChannel& channel, double timeout) {
    try {
        const auto line = channel.readLine(timeout);
        return line ? "line " + *line : "end";
    } catch (const ScopeError& error) {
        return "error " + error.message();
    }
}

TEST_F(ControlChannelTest, GivesTheLinesThatArrivedHoweverTheyWereSplit) {
    int lines = 0;
    for (unsigned seed = 0; seed < 120; ++seed) {
        Dice dice(seed);
        SetUp();
        ControlChannel channel(own_, uptime);
        ChannelModel model;
        for (int step = 0; step < 60; ++step) {
            if (dice.oneIn(2) && !model.closed) {
                std::string bytes;
                for (int parts = dice.upTo(3); parts >= 0; --parts) {
                    const bool long_ = seed % 4 == 0 && dice.oneIn(5);
                    bytes.append(long_ ? 16380 + dice.bits() % 5 : dice.bits() % 9,
                                 static_cast<char>('a' + parts));
                    bytes.append(dice.oneIn(3) ? "" : "\n");
                }
                const ssize_t sent = send(peer_, bytes.data(), bytes.size(), MSG_DONTWAIT);
                model.arrived.append(bytes, 0,
                                     static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
            }
            if (dice.oneIn(200)) {
                model.closed = true;
                closePeer();
            }
            const bool mayWait = !dice.oneIn(3);
            const std::string expected = model.read(mayWait);
            ASSERT_EQ(outcome(channel, mayWait ? 0.002 : dice.pick({0, -3})), expected)
                << "seed " << seed << ", step " << step;
            lines += expected.starts_with("line");
        }
        TearDown();
    }
    SetUp();
    EXPECT_GT(lines, 1000);
}

TEST_F(ControlChannelTest, ADeadlineStaysWhereItIs) {
    ControlChannel channel(own_, uptime);
    EXPECT_EQ(outcome(channel, std::numeric_limits<double>::quiet_NaN()), "error 辅助进程响应超时");
    const double before = uptime();
    EXPECT_EQ(outcome(channel, kShort), "error 辅助进程通信中断或超时");
    EXPECT_GE(uptime() - before, kShort - 0.002);
    // A peer that sends a byte now and then does not move it.
    double clock = 0;
    ControlChannel dripped(own_, [&] { return clock += 1; });
    write("d");
    EXPECT_EQ(outcome(dripped, 1.5), "error 辅助进程响应超时");
}

// A session that is asked nothing for hours must not end for it.
TEST_F(ControlChannelTest, ALongTimeOutIsMadeOfSeveralWaits) {
    ControlChannel channel(own_, uptime, 0.005);
    std::thread slow([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        write("late\n");
    });
    EXPECT_EQ(channel.readLine(kNotLong), "late");
    slow.join();
    const double before = uptime();
    EXPECT_THROW(channel.readLine(kShort), ScopeError);
    EXPECT_GE(uptime() - before, kShort - 0.002);
}

TEST_F(ControlChannelTest, DescriptorFailuresAreTold) {
    ControlChannel noDescriptor(-1, uptime);  // poll passes over it
    EXPECT_EQ(outcome(noDescriptor, kShort), "error 辅助进程通信中断或超时");
    const int closed = dup(own_);
    close(closed);
    ControlChannel gone(closed, uptime);
    EXPECT_EQ(outcome(gone, kNotLong), "error 辅助进程读取失败");
    EXPECT_THROW(gone.send(Dictionary{}), ScopeError);

    ControlChannel channel(own_, uptime);
    closePeer();
    try {
        channel.send(Dictionary{});
        ADD_FAILURE();
    } catch (const ScopeError& error) {
        EXPECT_EQ(error.message(), "辅助进程写入失败");
    }
}

TEST_F(ControlChannelTest, SendsOneLineOrNothing) {
    ControlChannel channel(own_, uptime);
    for (const std::size_t bytes : {7U, 100U, 4096U, 16382U, 16383U, 16384U, 20000U}) {
        const Dictionary value = ofSize(bytes);
        if (bytes <= 16383) {
            channel.send(value);
            EXPECT_EQ(readAtPeer(bytes + 1), encodeJson(value) + "\n");
        } else {
            EXPECT_THROW(channel.send(value), ScopeError) << bytes;
        }
        EXPECT_FALSE(peerHasBytes());
    }
}

// Signals keep arriving, without SA_RESTART, while a channel waits, reads and writes more than the
// descriptor takes at once.
TEST_F(ControlChannelTest, InterruptionsLoseNothing) {
    struct sigaction ignoring {};
    struct sigaction before {};
    ignoring.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignoring, &before);
    const int small = 4096;
    setsockopt(own_, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);

    const pthread_t self = pthread_self();
    std::atomic<bool> done{false};
    std::thread interrupter([&] {
        while (!done) {
            pthread_kill(self, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
    });
    std::string arrived;
    std::thread peer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        write("line\n");
        for (std::size_t bytes = 0; bytes < 4 * (kMaxControlLineBytes + 1); bytes += 4096) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            arrived += readAtPeer(4096);
        }
    });
    ControlChannel channel(own_, uptime);
    EXPECT_EQ(channel.readLine(kNotLong), "line");
    std::string sent;
    for (int i = 0; i < 4; ++i) {
        channel.send(ofSize(kMaxControlLineBytes));
        sent += encodeJson(ofSize(kMaxControlLineBytes)) + "\n";
    }
    peer.join();
    done = true;
    interrupter.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(arrived, sent);
}

}  // namespace
}  // namespace ferovane
