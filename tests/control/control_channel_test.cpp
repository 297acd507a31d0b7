#include "core/control/control_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <map>
#include <thread>

#include "core/model/scope_error.h"
#include "tests/support/dice.h"

namespace ferovane {
namespace {

constexpr double kNotLong = 5;  // seconds; only a failing test waits for it
constexpr double kShort = 0.02;

double uptime() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void sleepMilliseconds(int count) {
    std::this_thread::sleep_for(std::chrono::milliseconds(count));
}

// A value whose JSON has this many bytes.
std::map<std::string, double> ofSize(std::size_t bytes) {
    return {{std::string(bytes - std::string_view(R"({"":1})").size(), 'k'), 1}};
}

// What the channel reads is written to `peer`, and the other way round.
struct Connection {
    // Roomy: a whole line waits in it.
    explicit Connection(int room = 1 << 20, bool blocks = true) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
            std::abort();
        }
        own = ends[0];
        peer = ends[1];
        setsockopt(own, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        setsockopt(peer, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        fcntl(own, F_SETFL, blocks ? 0 : O_NONBLOCK);
        std::signal(SIGPIPE, SIG_IGN);
    }
    ~Connection() {
        close(own);
        hangUp();
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void hangUp() {
        if (peer >= 0) {
            close(std::exchange(peer, -1));
        }
    }
    // What comes, at most `bytes` of it, until there is nothing more for now.
    std::string arrived(std::size_t bytes) const {
        std::string all(bytes, '\0');
        const ssize_t count = recv(peer, all.data(), bytes, MSG_DONTWAIT);
        return all.substr(0, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }

    int own, peer;
};

template <class Action>
std::string outcome(const Action& action) {
    try {
        return action();
    } catch (const ScopeError& error) {
        return "error " + error.message();
    }
}

std::string read(ControlChannel& channel, double timeout) {
    return outcome([&] {
        const auto line = channel.readLine(timeout);
        return line ? "line " + *line : "end";
    });
}

std::string sent(ControlChannel& channel, std::size_t bytes,
                 const std::function<bool()>& giveUp = {}) {
    return outcome([&] {
        channel.send(ofSize(bytes), giveUp);
        return "sent";
    });
}

// However they are split; the pieces of a fuzzer's choice are its own matter.
TEST(ControlChannelTest, GivesTheLinesThatArrivedAndRefusesTooLongOnes) {
    for (const bool blocks : {true, false}) {
        Connection connection(1 << 20, blocks);
        ControlChannel channel(connection.own, uptime);
        const auto arrive = [&](const std::string& bytes) {
            ASSERT_EQ(send(connection.peer, bytes.data(), bytes.size(), 0), ssize_t(bytes.size()));
        };
        const std::string longest(16383, 'x');
        arrive("one\n\ntw");
        EXPECT_EQ(read(channel, 0), "error 辅助进程响应超时");
        EXPECT_EQ(read(channel, kNotLong), "line one");
        EXPECT_EQ(read(channel, testing::kNaN), "line ");
        EXPECT_EQ(read(channel, kShort), "error 辅助进程通信中断或超时");
        arrive("o\n" + longest + "\nno line");
        EXPECT_EQ(read(channel, kNotLong), "line two");
        EXPECT_EQ(read(channel, kNotLong), "line " + longest);
        connection.hangUp();
        EXPECT_EQ(read(channel, kNotLong), "end");
    }
    for (const char* end : {"", "\n"}) {
        const Connection connection;
        ControlChannel channel(connection.own, uptime);
        const std::string bytes = std::string(16384, 'x') + end;
        send(connection.peer, bytes.data(), bytes.size(), 0);
        EXPECT_EQ(read(channel, kNotLong), "error 控制消息过长");
    }
}

// A session that is asked nothing for hours must not end for it; a peer that sends a byte now and
// then does not move a deadline.
TEST(ControlChannelTest, ADeadlineStaysWhereItIsThoughItIsMadeOfSeveralWaits) {
    const Connection connection;
    for (const double longest : {kLongestControlWaitSeconds, 0.005}) {
        ControlChannel channel(connection.own, uptime, longest);
        std::thread slow([&] {
            sleepMilliseconds(40);
            send(connection.peer, "late\n", 5, 0);
        });
        EXPECT_EQ(read(channel, kNotLong), "line late");
        slow.join();
        const double before = uptime();
        EXPECT_NE(read(channel, kShort).find("超时"), std::string::npos);
        EXPECT_GE(uptime() - before, kShort - 0.002);
    }
    double clock = 0;
    ControlChannel dripped(connection.own, [&] { return clock += 1; });
    send(connection.peer, "d", 1, 0);
    EXPECT_EQ(read(dripped, 1.5), "error 辅助进程响应超时");
}

TEST(ControlChannelTest, DescriptorFailuresAreTold) {
    ControlChannel noDescriptor(-1, uptime);  // poll passes over it
    EXPECT_EQ(read(noDescriptor, kShort), "error 辅助进程通信中断或超时");
    Connection connection;
    const int closed = dup(connection.own);
    close(closed);
    ControlChannel gone(closed, uptime), left(connection.own, uptime);
    EXPECT_EQ(read(gone, kNotLong), "error 辅助进程读取失败");
    EXPECT_EQ(sent(gone, 9), "error 辅助进程写入失败");
    connection.hangUp();
    EXPECT_EQ(sent(left, 9), "error 辅助进程写入失败");
}

TEST(ControlChannelTest, SendsOneLineOrNothing) {
    const Connection connection;
    ControlChannel channel(connection.own, uptime);
    for (const std::size_t bytes : {7U, 100U, 4096U, 16382U, 16383U, 16384U, 20000U}) {
        const bool fits = bytes <= 16383;
        EXPECT_EQ(sent(channel, bytes), fits ? "sent" : "error 控制消息过长");
        EXPECT_EQ(connection.arrived(30000), fits ? encodeJson(ofSize(bytes)) + "\n" : "");
    }
}

// A reader that takes nothing is waited for until that is given up; what it took is a beginning.
TEST(ControlChannelTest, SendingIsGivenUpWhileNothingIsTaken) {
    for (const bool blocks : {true, false}) {
        const Connection connection(4096, blocks);
        ControlChannel channel(connection.own, uptime);
        int asked = 0;
        EXPECT_EQ(sent(channel, kMaxControlLineBytes, [&] { return ++asked == 2; }),
                  "error 辅助进程写入失败");
        EXPECT_EQ(asked, 2);
        const std::string line = encodeJson(ofSize(kMaxControlLineBytes));
        EXPECT_TRUE(line.starts_with(connection.arrived(30000)));
    }
}

// Signals keep arriving, without SA_RESTART, while a channel waits, reads and writes more than the
// descriptor takes at once.
TEST(ControlChannelTest, InterruptionsLoseNothing) {
    struct sigaction ignoring {};
    struct sigaction before {};
    ignoring.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignoring, &before);
    for (const bool blocks : {true, false}) {
        const Connection connection(4096, blocks);
        const pthread_t self = pthread_self();
        std::atomic<bool> done{false};
        std::string arrived, expected;
        std::thread peer([&] {
            for (int i = 0; !done; ++i) {
                pthread_kill(self, SIGUSR1);
                sleepMilliseconds(1);
                arrived += connection.arrived(4096);
                if (i == 10) {
                    send(connection.peer, "line\n", 5, 0);
                }
            }
        });
        ControlChannel channel(connection.own, uptime);
        EXPECT_EQ(read(channel, kNotLong), "line line");
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(sent(channel, kMaxControlLineBytes, [] { return false; }), "sent");
            expected += encodeJson(ofSize(kMaxControlLineBytes)) + "\n";
        }
        done = true;
        peer.join();
        EXPECT_EQ(arrived + connection.arrived(70000), expected);
    }
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace ferovane
