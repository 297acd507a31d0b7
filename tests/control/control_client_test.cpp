#include "core/control/control_client.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>

namespace ferovane {
namespace {

// A shell stands in for the helper. It has read the first request when `then` begins.
ControlClient helperThat(const std::string& then) {
    return ControlClient({"/bin/sh", "-c", "read line; " + then});
}

std::string asked(ControlClient& client, double seconds = 10) {
    const ControlAnswer answer = client.request({.command = "auto"}, seconds);
    const auto* failure = std::get_if<ControlFailure>(&answer);
    return failure ? "failure " + failure->message : std::get<ControlReply>(answer).message;
}

auto openDescriptors() {
    std::filesystem::directory_iterator list("/dev/fd");
    return std::distance(begin(list), end(list));
}

class ControlClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::signal(SIGPIPE, SIG_DFL);
        descriptors_ = openDescriptors();
    }
    void TearDown() override {
        EXPECT_EQ(openDescriptors(), descriptors_);
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
    }
    long descriptors_ = 0;
};

TEST_F(ControlClientTest, AnyFailureIsAValueAndTheEndOfTheSession) {
    const std::pair<const char*, const char*> cases[] = {
        {"exit 3", "辅助进程已经结束"},
        {"exec cat >/dev/null", "辅助进程通信中断或超时"},
        {"sleep 0.4; echo '{\"ok\":true,\"message\":\"late\"}'; cat >/dev/null",
         "辅助进程通信中断或超时"},
        {"echo '[1]'; cat", "辅助进程的回复无法识别"},
        {"echo '{\"ok\":true,\"message\":\"m\",\"id\":7}'; cat", "辅助进程的回复无法识别"},
        {"echo '{\"ok\":true,\"message\":\"m\"}'; cat", "辅助进程的回复无法识别"},
        {"head -c 20000 /dev/zero | tr '\\0' x; cat", "辅助进程的回复无法识别"},
    };
    for (const auto& [then, failure] : cases) {
        ControlClient client = helperThat(then);
        const std::string first = asked(client, 0.3);
        EXPECT_NE(first.find(failure), std::string::npos) << then << first;
        EXPECT_EQ(asked(client), first) << then;
        EXPECT_FALSE(client.isAlive());
    }
    ControlClient gone({"/bin/sh", "-c", "exit"});
    siginfo_t end{};
    ASSERT_EQ(::waitid(P_ALL, 0, &end, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(asked(gone), "failure 辅助进程写入失败");
    ControlClient none({"/no/such/helper"});
    EXPECT_EQ(asked(none), "failure 无法启动辅助进程");
    rlimit most{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &most), 0);
    const rlimit noMore{0, most.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &noMore), 0);
    ControlClient lineless({"/bin/sh"});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &most), 0);
    EXPECT_EQ(asked(lineless), "failure 无法启动辅助进程");
}

TEST_F(ControlClientTest, ASessionIsARequestAndAReplyAtATimeToItsEnd) {
    ControlClient client = helperThat(
        "echo '{\"ok\":true,\"message\":\"one\",\"id\":1}'; read line;"
        "echo '{\"ok\":false,\"message\":\"two\"}'; read line; echo \"$line\" >&2;"
        "echo \"{\\\"ok\\\":true,\\\"message\\\":\\\"$1 $2\\\",\\\"id\\\":4}\"; exit 5");
    EXPECT_EQ(asked(client), "one");
    const auto tooLong = client.request({.command = "auto", .label = std::string(20000, 'x')});
    EXPECT_EQ(std::get<ControlFailure>(tooLong).code, ResultCode::invalid);
    EXPECT_EQ(asked(client), "two");
    EXPECT_TRUE(client.isAlive());
    const auto last = client.end();
    EXPECT_EQ(std::get<ControlReply>(last).message,
              std::to_string(::getpid()) + " " + std::to_string(::getuid()));
    EXPECT_EQ(client.exitStatus(), 5);
    EXPECT_EQ(asked(client), "failure 辅助进程已经结束");
}

}  // namespace
}  // namespace ferovane
