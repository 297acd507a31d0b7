#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "shim/fv.h"
#include "tests/shim/child_process.h"

namespace {

struct ToolResult {
    int error = 0;
    int status = -1;
    std::string output;
};

std::string readAll(int descriptor) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t count = read(descriptor, buffer, sizeof buffer);
        if (count <= 0) {
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
}

// Signals 1 to 31; the two above them belong to the threads library.
constexpr unsigned long long kStandardSignals = 0x7FFFFFFF;

// Runs the tool of that path, its outputs in a temporary file.
ToolResult runTool(std::vector<const char*> arguments) {
    arguments.push_back(nullptr);
    char path[] = "/tmp/shim-spawn-test-XXXXXX";
    const int output = mkstemp(path);
    unlink(path);
    ToolResult result;
    std::int32_t pid = 0;
    result.error = fv_spawn_tool(arguments[0], arguments.data(), output, &pid);
    if (result.error == 0) {
        kill(-pid, SIGCONT);
        int status = 0;
        waitpid(pid, &status, 0);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    lseek(output, 0, SEEK_SET);
    result.output = readAll(output);
    close(output);
    return result;
}

ToolResult runScript(const char* script) {
    return runTool({"/bin/sh", "-c", script});
}

TEST(SpawnToolTest, BothOutputsArriveInOrderAndStandardInputIsEmpty) {
    const ToolResult result = runScript("echo one; echo two >&2; cat; echo three; exit 7");
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(result.output, "one\ntwo\nthree\n");
    EXPECT_EQ(result.status, 7);
}

TEST(SpawnToolTest, InheritsNothingButPathAndLanguage) {
    setenv("FV_SECRET", "1", 1);
    setenv("DYLD_INSERT_LIBRARIES", "/tmp/evil", 1);
    const ToolResult result = runTool({"/usr/bin/env"});
    EXPECT_EQ(result.output, "PATH=/usr/bin:/bin:/usr/sbin:/sbin\nLANG=en_US.UTF-8\n");
    unsetenv("FV_SECRET");
    unsetenv("DYLD_INSERT_LIBRARIES");
}

TEST(SpawnToolTest, NoOtherDescriptorOfOursIsOpen) {
    const int leaky = open("/dev/zero", O_RDONLY);
    const int high = fcntl(leaky, F_DUPFD, 200);
    ASSERT_GE(high, 200);
    const ToolResult result = runScript("for f in /proc/$$/fd/*; do echo ${f##*/}; done");
    // The shell itself may hold one descriptor, on the directory it lists.
    EXPECT_THAT((std::vector<std::string>{"0\n1\n2\n", "0\n1\n2\n3\n"}),
                testing::Contains(result.output));
    close(leaky);
    close(high);
}

TEST(SpawnToolTest, LeadsAProcessGroupOfItsOwn) {
    EXPECT_EQ(runScript("set -- $(cat /proc/$$/stat); test $5 = $$").status, 0);
}

TEST(SpawnToolTest, StartsWithDefaultUnblockedSignals) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1}) {
                      ::signal(signal, SIG_IGN);
                  }
                  fv_install_stop_handlers();
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_BLOCK, &all, nullptr);
                  const std::string masks =
                      runTool({"/bin/grep", "-hE", "SigBlk|SigIgn", "/proc/self/status"}).output;
                  unsigned long long blocked = ~0ull;
                  unsigned long long ignored = ~0ull;
                  std::sscanf(masks.c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored);
                  return ((blocked | ignored) & kStandardSignals) == 0 ? 0 : 1;
              }),
              0);
}

// The caller may have been started with its standard descriptors closed, and its output file may
// then be one of them.
TEST(SpawnToolTest, OutputMayBeAStandardDescriptor) {
    for (const int standard : {0, 1, 2}) {
        tests::Pipe output;
        const int writeEnd = output.writeEnd();
        const int status = tests::exitStatusOf([standard, writeEnd] {
            dup2(writeEnd, standard);
            std::int32_t pid = 0;
            const char* const arguments[] = {"sh", "-c", "cat; echo out; echo err >&2", nullptr};
            if (fv_spawn_tool("/bin/sh", arguments, standard, &pid) != 0) {
                return 1;
            }
            kill(-pid, SIGCONT);
            waitpid(pid, nullptr, 0);
            return 0;
        });
        EXPECT_EQ(status, 0) << standard;
        char text[64] = {};
        EXPECT_EQ(read(output.readEnd(), text, sizeof text - 1), 8) << standard;
        EXPECT_STREQ(text, "out\nerr\n") << standard;
    }
}

// Whoever starts a tool may be killed before it has told anybody of it.
TEST(SpawnToolTest, DoesNothingUntilToldAndEndsWithAParentThatIsKilled) {
    tests::Pipe output;
    const int writeEnd = output.writeEnd();
    const int status = tests::exitStatusOf([writeEnd] {
        setsid();
        const pid_t parent = fork();  // whose own parent keeps this group from being an orphan
        if (parent == 0) {
            std::int32_t pid = 0;
            const char* const arguments[] = {"sh", "-c", "echo ran", nullptr};
            fv_spawn_tool("/bin/sh", arguments, writeEnd, &pid);
            usleep(100'000);
            kill(getpid(), SIGKILL);
        }
        return waitpid(parent, nullptr, 0) == parent ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    close(writeEnd);
    char text[8] = {};
    EXPECT_EQ(read(output.readEnd(), text, sizeof text), 0) << "the tool ran, or still stands";
}

TEST(SpawnToolTest, ReportsWhatCannotBeStarted) {
    std::int32_t pid = 77;
    const char* const arguments[] = {"tool", nullptr};
    const char* const none[] = {nullptr};
    EXPECT_EQ(fv_spawn_tool("/no/such/tool", arguments, 1, &pid), ENOENT);
    EXPECT_EQ(pid, 0);
    EXPECT_EQ(fv_spawn_tool("/dev/null", arguments, 1, &pid), EACCES);
    EXPECT_EQ(fv_spawn_tool("bin/sh", arguments, 1, &pid), EINVAL);
    EXPECT_EQ(fv_spawn_tool(nullptr, arguments, 1, &pid), EINVAL);
    EXPECT_EQ(fv_spawn_tool("/bin/sh", nullptr, 1, &pid), EINVAL);
    EXPECT_EQ(fv_spawn_tool("/bin/sh", none, 1, &pid), EINVAL);
    EXPECT_EQ(fv_spawn_tool("/bin/sh", arguments, -1, &pid), EINVAL);
    EXPECT_EQ(fv_spawn_tool("/bin/sh", arguments, 1, nullptr), EINVAL);
    EXPECT_EQ(fv_spawn_tool("/bin/sh", arguments, 987, &pid), EBADF);
}

TEST(TemporaryDirectoryTest, EndsInASlashAndFitsExactly) {
    char path[1024];
    ASSERT_EQ(fv_temporary_directory(path, sizeof path), 0);
    const std::string directory = path;
    ASSERT_FALSE(directory.empty());
    EXPECT_EQ(directory.back(), '/');
    EXPECT_EQ(access(path, W_OK), 0);

    EXPECT_EQ(fv_temporary_directory(path, directory.size() + 1), 0);
    EXPECT_EQ(path, directory);
    EXPECT_EQ(fv_temporary_directory(path, directory.size()), -1);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(fv_temporary_directory(path, 0), -1);
    EXPECT_EQ(fv_temporary_directory(nullptr, 10), -1);
}

TEST(ExecutablePathTest, IsTheFileOfThisProcess) {
    const std::string expected = std::filesystem::read_symlink("/proc/self/exe");
    char path[4096];
    ASSERT_EQ(fv_executable_path(path, sizeof path), 0);
    EXPECT_EQ(path, expected);
    EXPECT_EQ(fv_executable_path(path, expected.size() + 1), 0);
    EXPECT_EQ(fv_executable_path(path, expected.size()), -1);
    EXPECT_EQ(fv_executable_path(nullptr, sizeof path), -1);
}

}  // namespace
