#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/simulator/apple/fake_attached_machine.h"
#include "tests/simulator/apple/temporary_directory.h"

namespace {

struct Outcome {
    int error = 0;  // of posix_spawn itself
    int exitStatus = -1;
    bool operator==(const Outcome&) const = default;
};

// Runs a tool to its end: output on the descriptor named, nothing else named but `kept`.
Outcome run(const std::string& path, const std::string& script, short flags, int kept) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    EXPECT_EQ(posix_spawnattr_setflags(&attributes, flags), 0);
    short readBack = 0;
    posix_spawnattr_getflags(&attributes, &readBack);
    EXPECT_EQ(readBack, flags);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    posix_spawn_file_actions_addinherit_np(&actions, kept);

    std::string name = path;
    std::string option = "-c";
    std::string text = script;
    char* const arguments[] = {name.data(), option.data(), text.data(), nullptr};
    char* const environment[] = {nullptr};
    Outcome outcome;
    pid_t pid = 0;
    outcome.error = posix_spawn(&pid, path.c_str(), &actions, &attributes, arguments, environment);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (outcome.error == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        outcome.exitStatus = WEXITSTATUS(status);
    }
    return outcome;
}

// A bit for each descriptor that the shell finds open.
std::string openDescriptors(const std::vector<int>& descriptors) {
    std::string script = "open=0;";
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
        script += "[ -e /proc/$$/fd/" + std::to_string(descriptors[i]) + " ] && open=$((open+" +
                  std::to_string(1 << i) + "));";
    }
    return script + "exit $open";
}

TEST(SpawnTest, OnlyNamedDescriptorsReachTheChild) {
    const int low = open("/dev/null", O_RDONLY);
    const int kept = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int high = fcntl(low, F_DUPFD, 200);
    const std::string script = openDescriptors({1, 2, kept, 0, low, high});
    EXPECT_EQ(run("/bin/sh", script, POSIX_SPAWN_CLOEXEC_DEFAULT, kept), (Outcome{0, 0b000111}));
    EXPECT_EQ(run("/bin/sh", script, 0, kept), (Outcome{0, 0b111111}));
    for (const int descriptor : {low, kept, high}) {
        EXPECT_EQ(fcntl(descriptor, F_GETFD), descriptor == kept ? FD_CLOEXEC : 0);
        close(descriptor);
    }
}

TEST(SpawnTest, FailureToStartIsReturnedAndExitStatusesArrive) {
    const short flags = POSIX_SPAWN_CLOEXEC_DEFAULT | POSIX_SPAWN_SETPGROUP;
    EXPECT_EQ(run("/usr/bin/no-such-tool", "", flags, 2), (Outcome{ENOENT, -1}));
    EXPECT_EQ(run("/", "", flags, 2), (Outcome{EACCES, -1}));
    EXPECT_EQ(run("/bin/sh", "exit 42", flags, 2), (Outcome{0, 42}));
}

TEST(SpawnTest, AbsolutePathsAreBelowTheRootOfAnAttachedMachine) {
    const TemporaryDirectory root;
    root.write("usr/bin/pmset", "#!/bin/sh\nexit 7\n");
    std::filesystem::permissions(root.path() / "usr/bin/pmset", std::filesystem::perms::owner_all);
    FakeAttachedMachine machine;
    machine.directory = root.path();
    EXPECT_EQ(run("/usr/bin/pmset", "", POSIX_SPAWN_CLOEXEC_DEFAULT, 2), (Outcome{0, 7}));
    EXPECT_EQ(run("/bin/sh", "exit 0", POSIX_SPAWN_CLOEXEC_DEFAULT, 2), (Outcome{ENOENT, -1}));
}

}  // namespace
