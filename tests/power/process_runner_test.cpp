// Running real tools: what comes back, and that nothing stays behind.
#include "core/power/process_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using testing::failureOf;

constexpr double kAmple = 60;  // seconds; far more than anything here takes
constexpr const char* kTimedOut = "命令超时。请刷新状态确认结果。";

std::ptrdiff_t openDescriptors() {
    const std::filesystem::directory_iterator descriptors("/dev/fd");
    return std::distance(begin(descriptors), end(descriptors));
}

double secondsNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A named pipe whose end of file tells that every process of a script that opened it is gone.
struct Lifeline {
    explicit Lifeline(const std::filesystem::path& at) : path(at) {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    // What was written until the last writer went; "…" when one is still there.
    std::string lastWords() const {
        pollfd waiting{reader, POLLHUP, 0};
        std::array<char, 64> words{};
        const bool ended = poll(&waiting, 1, 5000) > 0;
        const auto count = read(reader, words.data(), words.size());
        close(reader);
        std::filesystem::remove(path);
        return ended ? std::string(words.data(), static_cast<std::size_t>(count)) : "…";
    }
    std::string path;
    int reader = -1;
};

class ProcessRunnerTest : public ::testing::Test {
protected:
    ProcessRunnerTest() {
        std::string name = ::testing::TempDir() + "process-runner-XXXXXX";
        directory_ = mkdtemp(name.data());
        setenv("TMPDIR", directory_.c_str(), 1);
        descriptorsBefore_ = openDescriptors();
    }

    ~ProcessRunnerTest() override {
        EXPECT_EQ(openDescriptors(), descriptorsBefore_);
        EXPECT_TRUE(std::filesystem::is_empty(directory_));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was not reaped";
        std::filesystem::remove_all(directory_);
        unsetenv("TMPDIR");
    }

    static CommandResult shell(const std::string& script, double timeout = kAmple,
                               const ProcessRunner::Supervision& limits = {}) {
        return ProcessRunner::run("/bin/sh", {"-c", script}, timeout, limits);
    }

    std::filesystem::path directory_;
    std::ptrdiff_t descriptorsBefore_ = 0;
};

TEST_F(ProcessRunnerTest, ReturnsStatusAndOutput) {
    struct Case {
        const char* script;
        CommandResult expected;
    };
    const std::vector<Case> cases{
        {"exit 7", {7, ""}},
        {"echo out; exit 255", {255, "out\n"}},
        {"echo out; kill -9 $$", {9, "out\n"}},
        {"echo 1; echo 2 >&2; cat; echo 3", {0, "1\n2\n3\n"}},  // the input is empty
        {"printf 'a\\377b\\344\\270'", {0, "a\uFFFDb\uFFFD"}},
        {"printf 'a\\000b'", {0, std::string("a\0b", 3)}},
        {"head -c 3000000 /dev/zero | tr '\\0' x", {0, std::string(1048576, 'x')}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(shell(c.script), c.expected) << c.script;
    }
}

TEST_F(ProcessRunnerTest, NothingOfAToolOutlivesItsRun) {
    struct Case {
        const char* what;
        const char* script;  // after it has taken the lifeline as its standard output
        double timeout, grace;
        std::string failure, words;
        std::uint64_t writtenBytes = 1000;
        bool stops = false;  // after as long as what is late
    };
    const double late = 0.3;
    const std::vector<Case> cases{
        {"a late tool may tidy up",
         "trap 'printf asked; exit 0' TERM; while :; do sleep 0.01; done", late, kAmple, kTimedOut,
         "started asked"},
        {"a late tool and its child do not listen",
         "(trap '' TERM; sleep 60) & trap '' TERM; sleep 60", late, 0.1, kTimedOut, "started "},
        {"a stopped tool", "kill -STOP $$", late, 0.1, kTimedOut, "started "},
        {"ended in time, its child not", "sleep 60 & exit 0", kAmple, 0.1, "", "started "},
        {"only the child does not listen", "(trap '' TERM; sleep 60) & wait", late, 0.1, kTimedOut,
         "started "},
        {"its work is given up", "sleep 60", kAmple, 0.1, "会话正在结束，操作已中止", "started ",
         1000, true},
        {"writes without end", "while :; do echo flood >&2; done", kAmple, 0.1,
         "命令输出过多，已终止：/bin/sh", "started ", 99},
    };
    for (const auto& c : cases) {
        const Lifeline lifeline(directory_ / "lifeline");
        const auto script = "exec >" + lifeline.path + "; printf 'started '; " + c.script;
        const double before = secondsNow();
        const ProcessRunner::Supervision limits{
            .stop = [&] { return c.stops && secondsNow() - before > late; },
            .graceSeconds = c.grace,
            .writtenBytes = c.writtenBytes};
        EXPECT_EQ(failureOf([&] { shell(script, c.timeout, limits); }), c.failure) << c.what;
        EXPECT_GE(secondsNow() - before, c.failure == kTimedOut ? late : 0) << c.what;
        EXPECT_EQ(lifeline.lastWords(), c.words) << c.what;
    }
}

struct RecordingKeeper : ToolKeeper {
    void toolStarted(pid_t group) override {
        usleep(50'000);  // the tool would have run by now
        record += std::filesystem::exists(mark) ? "late " : "started ";
        EXPECT_EQ(getpgid(group), group);
        if (refuses) {
            throw ScopeError("无人看管");
        }
    }
    void toolEnded() noexcept override { record += "ended "; }
    std::string mark, record;
    bool refuses = false;
};

TEST_F(ProcessRunnerTest, AKeeperKnowsOfAToolBeforeItsFirstInstruction) {
    RecordingKeeper keeper;
    keeper.mark = (directory_ / "mark").string();
    const auto run = [&] { shell("echo > " + keeper.mark, kAmple, {.keeper = &keeper}); };
    keeper.refuses = true;
    EXPECT_EQ(failureOf(run), "无人看管");
    EXPECT_FALSE(std::filesystem::exists(keeper.mark));
    keeper.refuses = false;
    EXPECT_EQ(failureOf(run), "");
    EXPECT_EQ(keeper.record, "started started ended ");
    EXPECT_TRUE(std::filesystem::remove(keeper.mark));
}

TEST_F(ProcessRunnerTest, SaysWhyAToolCouldNotBeStarted) {
    EXPECT_EQ(failureOf([] { ProcessRunner::run("/nonexistent/tool", {}, kAmple); }),
              "无法启动 /nonexistent/tool（错误 2）");
    for (const auto& place : {(directory_ / "missing").string(), std::string(5000, 'x')}) {
        setenv("TMPDIR", place.c_str(), 1);
        EXPECT_EQ(failureOf([] { shell("exit 0"); }), "无法创建命令输出文件");
    }
}

// A file that may not grow stands for a disk that has no room.
TEST_F(ProcessRunnerTest, SaysThatOutputMayBeMissing) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{8192, before.rlim_max};
    const auto previous = signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const auto full = shell("head -c 5000 /dev/zero");
    const auto roomy = shell("head -c 4096 /dev/zero");
    setrlimit(RLIMIT_FSIZE, &before);
    signal(SIGXFSZ, previous);
    EXPECT_TRUE(full.outputLost);
    EXPECT_FALSE(roomy.outputLost);
    EXPECT_EQ(roomy.output.size(), 4096U);
}

// A parent that ignores the end of its children hands that on to whom it starts.
TEST_F(ProcessRunnerTest, WithoutAStatusThereIsNoSuccess) {
    const auto previous = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(failureOf([] { shell("exit 0"); }), "无法取得命令结果：/bin/sh");
    signal(SIGCHLD, previous);
}

TEST(QuotingTest, WhatIsQuotedReachesAToolUnchanged) {
    for (const std::string word : {"", "plain", "it's", "''", "a'b\"c$HOME `id` \\ ;\n*中"}) {
        const std::vector<std::string> arguments{
            "-c", "printf '%s|%s|' \"$1\" " + ProcessRunner::shellQuote(word), "sh", word};
        EXPECT_EQ(ProcessRunner::run("/bin/sh", arguments, kAmple).output, word + "|" + word + "|");
    }
    EXPECT_EQ(ProcessRunner::appleScriptString("\\\"a'b\nc\r\t"), "\"\\\\\\\"a'b\\nc\r\t\"");
}

}  // namespace
}  // namespace ferovane
