// How a tool is started. What it answers and how it is ended, the process runner's tests ask.
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "shim/fv.h"
#include "tests/shim/child_process.h"

namespace {

// What the tool wrote, after its end, to the descriptor that `place` makes of the pipe's.
std::string outputOf(
    std::vector<const char*> arguments,
    const std::function<int(int)>& place = [](int end) { return end; }) {
    arguments.push_back(nullptr);
    tests::Pipe output;
    std::int32_t pid = 0;
    EXPECT_EQ(fv_spawn_tool(arguments[0], arguments.data(), place(output.ends[1]), &pid), 0);
    kill(-pid, SIGCONT);
    waitpid(pid, nullptr, 0);
    char text[4096];
    const ssize_t count = read(output.ends[0], text, sizeof text);
    return {text, static_cast<std::size_t>(count < 0 ? 0 : count)};
}

// Whatever environment, descriptors and signals its starter has.
TEST(SpawnToolTest, InheritsNothing) {
    EXPECT_EQ(tests::exitStatusOf([] {
                  setenv("DYLD_INSERT_LIBRARIES", "/tmp/evil", 1);
                  fcntl(STDIN_FILENO, F_DUPFD, 200);
                  for (const int signal : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1}) {
                      ::signal(signal, SIG_IGN);
                  }
                  fv_install_stop_handlers();
                  sigset_t all;
                  sigfillset(&all);
                  sigprocmask(SIG_BLOCK, &all, nullptr);
                  EXPECT_EQ(outputOf({"/usr/bin/env"}),
                            "PATH=/usr/bin:/bin:/usr/sbin:/sbin\nLANG=en_US.UTF-8\n");
                  // The shell itself may hold one descriptor, on the directory it lists. Two
                  // signals above 31 belong to the threads library.
                  EXPECT_THAT(outputOf({"/bin/sh", "-c",
                                        "set -- $(cat /proc/$$/stat); test $5 = $$ && echo leads; "
                                        "for f in /proc/$$/fd/*; do echo ${f##*/}; done; "
                                        "grep -hE 'SigBlk|SigIgn' /proc/self/status"}),
                              testing::MatchesRegex("leads\n0\n1\n2\n(3\n)?"
                                                    "SigBlk:\t[0-9a-f]{8}[08]0{7}\n"
                                                    "SigIgn:\t[0-9a-f]{8}[08]0{7}\n"));
                  return testing::Test::HasFailure() ? 1 : 0;
              }),
              0);
}

// The caller may have been started with its standard descriptors closed, and its output file may
// then be one of them.
TEST(SpawnToolTest, OutputMayBeAStandardDescriptor) {
    for (const int standard : {0, 1, 2}) {
        EXPECT_EQ(tests::exitStatusOf([standard] {
                      const auto onto = [standard](int end) { return dup2(end, standard); };
                      return outputOf({"/bin/sh", "-c", "cat; echo out; echo err >&2"}, onto) ==
                                     "out\nerr\n"
                                 ? 0
                                 : 1;
                  }),
                  0)
            << standard;
    }
}

// Whoever starts a tool may be killed before it has told anybody of it.
TEST(SpawnToolTest, DoesNothingUntilToldAndEndsWithAParentThatIsKilled) {
    tests::Pipe output;
    const int status = tests::exitStatusOf([&] {
        setsid();
        const pid_t parent = fork();  // whose own parent keeps this group from being an orphan
        if (parent == 0) {
            std::int32_t pid = 0;
            const char* const arguments[] = {"sh", "-c", "echo ran", nullptr};
            fv_spawn_tool("/bin/sh", arguments, output.ends[1], &pid);
            usleep(100'000);
            kill(getpid(), SIGKILL);
        }
        return waitpid(parent, nullptr, 0) == parent ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
    output.closeEnd(1);
    char text[8] = {};
    EXPECT_EQ(read(output.ends[0], text, sizeof text), 0) << "the tool ran, or still stands";
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

}  // namespace
