#include "core/control/control_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <limits>
#include <map>
#include <thread>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

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
class ControlChannelTest : public testing::Test {
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
    std::string readError(ControlChannel& channel, double timeout) const {
        try {
            channel.readLine(timeout);
            return "";
        } catch (const ScopeError& error) {
            return error.message();
        }
    }

    int own_ = -1;
    int peer_ = -1;
};

TEST_F(ControlChannelTest, ReturnsLinesHoweverTheyArrive) {
    ControlChannel channel(own_, uptime);
    write("first\nsecond\n\nfour");
    EXPECT_EQ(channel.readLine(kNotLong), "first");
    EXPECT_EQ(channel.readLine(0), "second");  // without waiting
    EXPECT_EQ(channel.readLine(-1), "");
    std::thread slow([&] {
        for (const std::string_view part : {"t", "h", "\nfi", "fth\n"}) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            write(part);
        }
    });
    EXPECT_EQ(channel.readLine(kNotLong), "fourth");
    EXPECT_EQ(channel.readLine(kNotLong), "fifth");
    slow.join();
}

TEST_F(ControlChannelTest, TheEndOfTheStreamIsNoLine) {
    ControlChannel channel(own_, uptime);
    write("whole\nhalf");
    closePeer();
    EXPECT_EQ(channel.readLine(kNotLong), "whole");
    EXPECT_EQ(channel.readLine(kNotLong), std::nullopt);
    EXPECT_EQ(channel.readLine(kNotLong), std::nullopt);
}

TEST_F(ControlChannelTest, ALineHasALimit) {
    const std::string longest(kMaxControlLineBytes, 'a');
    ControlChannel channel(own_, uptime);
    write(longest + "\nnext\n");
    EXPECT_EQ(channel.readLine(kNotLong), longest);
    EXPECT_EQ(channel.readLine(kNotLong), "next");

    // No line feed has to come for the line to be too long, and none makes it shorter.
    write(longest + "a");
    EXPECT_EQ(readError(channel, kNotLong), "控制消息过长");
    write("\nlater\n");
    EXPECT_EQ(readError(channel, kNotLong), "控制消息过长");
}

TEST_F(ControlChannelTest, TheLimitDoesNotDependOnHowALineIsSplit) {
    ControlChannel channel(own_, uptime);
    write("a");
    EXPECT_EQ(readError(channel, kShort), "辅助进程通信中断或超时");
    write(std::string(kMaxControlLineBytes, 'a') + "\n");
    EXPECT_EQ(readError(channel, kNotLong), "控制消息过长");
}

TEST_F(ControlChannelTest, SaysWhyNoLineCame) {
    ControlChannel channel(own_, uptime);
    EXPECT_EQ(readError(channel, 0), "辅助进程响应超时");
    EXPECT_EQ(readError(channel, -3), "辅助进程响应超时");
    EXPECT_EQ(readError(channel, std::numeric_limits<double>::quiet_NaN()), "辅助进程响应超时");
    const double before = uptime();
    EXPECT_EQ(readError(channel, kShort), "辅助进程通信中断或超时");
    EXPECT_GE(uptime() - before, kShort - 0.002);

    // Half a line is kept across a time-out.
    write("ha");
    EXPECT_EQ(readError(channel, kShort), "辅助进程通信中断或超时");
    write("lf\n");
    EXPECT_EQ(channel.readLine(kNotLong), "half");

    // A peer that sends a byte now and then does not move the deadline.
    double clock = 0;
    ControlChannel dripped(own_, [&] { return clock += 1; });
    write("d");
    EXPECT_EQ(readError(dripped, 1.5), "辅助进程响应超时");
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
    EXPECT_EQ(readError(noDescriptor, kShort), "辅助进程通信中断或超时");
    const int closed = dup(own_);
    close(closed);
    ControlChannel gone(closed, uptime);
    EXPECT_EQ(readError(gone, kNotLong), "辅助进程读取失败");
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
    channel.send(Dictionary{{"F0Ac", 1834.5}});
    const std::string line = "{\"F0Ac\":1834.5}\n";
    EXPECT_EQ(readAtPeer(line.size()), line);

    std::thread reader([&] {
        const std::string longest = readAtPeer(kMaxControlLineBytes + 1);
        EXPECT_EQ(longest.size(), kMaxControlLineBytes + 1);
        EXPECT_TRUE(longest.ends_with("k\":1}\n"));
    });
    channel.send(ofSize(kMaxControlLineBytes));
    reader.join();

    try {
        channel.send(ofSize(kMaxControlLineBytes + 1));
        ADD_FAILURE();
    } catch (const ScopeError& error) {
        EXPECT_EQ(error.message(), "控制消息过长");
    }
    EXPECT_FALSE(peerHasBytes());
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
