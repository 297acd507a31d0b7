// Machine directories: what is refused, and that nothing half-made is left behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "simulator/machine/simulated_mac.h"
#include "simulator/machine/world_state.h"
#include "tests/simulator/machine/scratch_directory.h"

namespace {

using namespace simulator;
namespace fs = std::filesystem;

std::string problemOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

std::string problemOpening(const std::string& directory) {
    return problemOf([&directory] { openMachineDirectory(directory); });
}

void overwrite(const std::string& file, std::streamoff offset, const std::string& bytes) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(offset);
    stream << bytes;
}

TEST(MachineDirectoryTest, KeepsItsMachineBetweenProcesses) {
    const ScratchDirectory scratch;
    createMachineDirectory(scratch.path("mac"), "MacBookPro11,4").otherWrites("F0Tg", 3000);
    SimulatedMac mac = openMachineDirectory(scratch.path("mac"));
    EXPECT_EQ(mac.keyCount(), 695U);
    EXPECT_EQ(mac.number("F1Mx"), 5700);
    EXPECT_EQ(mac.journal().size(), 2U);
    EXPECT_TRUE(fs::exists(scratch.path("mac/root/usr/bin/pmset")));
    EXPECT_TRUE(fs::exists(scratch.path("mac/root/Applications/Turbo Boost Switcher.app")));
}

TEST(MachineDirectoryTest, RefusesWhatIsNoMachine) {
    const ScratchDirectory scratch;
    const std::string mac = scratch.path("mac");
    EXPECT_EQ(problemOpening(mac), "there is no directory " + mac);
    fs::create_directory(mac);
    EXPECT_EQ(problemOpening(mac), "there is no simulated Mac in " + mac);
    for (const std::size_t size : {0U, 7U, 100U, 100000U}) {
        std::ofstream(mac + "/state") << std::string(size, 'x');
        EXPECT_EQ(problemOpening(mac), mac + "/state is not the state of a simulated Mac");
    }
}

TEST(MachineDirectoryTest, RefusesAStateOfAnotherVersionOrHalfAState) {
    const ScratchDirectory scratch;
    const std::string mac = scratch.path("mac");
    createMachineDirectory(mac, "iMac18,3");
    const std::string state = mac + "/state";
    const auto size = fs::file_size(state);
    overwrite(state, offsetof(WorldState, version), std::string("\x63\0\0\0", 4));
    EXPECT_NE(problemOpening(mac).find("was written by another version (format 99/"),
              std::string::npos);
    overwrite(state, offsetof(WorldState, version), std::string("\x01\0\0\0", 4));
    EXPECT_EQ(problemOpening(mac), "");
    fs::resize_file(state, size - 4096);
    EXPECT_NE(problemOpening(mac).find("incomplete or damaged"), std::string::npos);
    fs::resize_file(state, size);
    overwrite(state, offsetof(WorldState, keyCount), "\xFF\xFF\xFF\x7F");
    EXPECT_NE(problemOpening(mac).find("incomplete or damaged"), std::string::npos);
}

TEST(MachineDirectoryTest, RefusesToMakeOneWhereItCannot) {
    const ScratchDirectory scratch;
    const std::string mac = scratch.path("mac");
    const auto making = [&mac](const std::string& model) {
        return problemOf([&] { createMachineDirectory(mac, model); });
    };
    EXPECT_NE(making("PowerBook").find("unknown model \"PowerBook\""), std::string::npos);
    EXPECT_FALSE(fs::exists(mac));
    EXPECT_EQ(making("M1Pro"), "");
    EXPECT_EQ(making("M1Pro"), "there is a simulated Mac in " + mac + " already");
    EXPECT_NE(problemOf([&] {
                  createMachineDirectory(mac + "/no/where", "M1Pro");
              }).find("there is no directory " + mac + "/no"),
              std::string::npos);
    std::ofstream(scratch.path("file")) << "x";
    EXPECT_NE(problemOf([&] {
                  createMachineDirectory(scratch.path("file"), "M1Pro");
              }).find("is not a directory"),
              std::string::npos);
    EXPECT_NE(problemOf([&] {
                  createMachineDirectoryFromKeyDump(scratch.path("b"), "rubbish");
              }).find("line 1"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(scratch.path("b")));
}

TEST(MachineDirectoryTest, TakesTheRemainsOfAKilledCreationAndNothingElse) {
    const ScratchDirectory scratch;
    const std::string mac = scratch.path("mac");
    fs::create_directories(mac + "/root");
    std::ofstream(mac + "/root/mine") << "x";
    EXPECT_EQ(problemOf([&] { createMachineDirectory(mac, "M1Pro"); }), mac + " is not empty");
    EXPECT_TRUE(fs::exists(mac + "/root/mine"));
    std::ofstream(mac + "/state.new") << "half of it";
    EXPECT_EQ(problemOf([&] { createMachineDirectory(mac, "M1Pro"); }), "");
    EXPECT_FALSE(fs::exists(mac + "/root/mine"));
    EXPECT_EQ(problemOpening(mac), "");
}

TEST(MachineDirectoryTest, OfManyCreationsAtOnceOneWins) {
    for (int round = 0; round < 10; ++round) {
        const ScratchDirectory scratch;
        const std::string mac = scratch.path("mac");
        for (const char* model : {"M1Pro", "iMac18,3", "M1Pro", "MacBook10,1"}) {
            if (::fork() == 0) {
                ::_exit(problemOf([&] { createMachineDirectory(mac, model); }).empty() ? 0 : 1);
            }
        }
        int winners = 0;
        for (int status = 0; ::wait(&status) > 0;) {
            winners += status == 0 ? 1 : 0;
        }
        EXPECT_EQ(winners, 1);
        EXPECT_EQ(problemOpening(mac), "");
    }
}

// A full disk, played by a limit on file sizes; in a process of its own, for it is not undone.
TEST(MachineDirectoryTest, AFullDiskLeavesNoHalfMachine) {
    const ScratchDirectory scratch;
    const std::string mac = scratch.path("mac");
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small = {20000, 20000};
        ::setrlimit(RLIMIT_FSIZE, &small);
        const std::string problem = problemOf([&mac] { createMachineDirectory(mac, "M1Pro"); });
        ::_exit(problem.find("cannot allocate") == 0 && !fs::exists(mac) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(MachineDirectoryTest, AJournalOnAFullDiskLosesLinesButTheMachineGoesOn) {
    const ScratchDirectory scratch;
    const std::string mac = scratch.path("mac");
    createMachineDirectory(mac, "M1Pro");
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small = {200, 200};
        ::setrlimit(RLIMIT_FSIZE, &small);
        SimulatedMac full = openMachineDirectory(mac);
        for (int load = 1; load <= 20; ++load) {
            full.set(Property::kLoad, load);
        }
        ::_exit(full.value(Property::kLoad) == 20 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    SimulatedMac after = openMachineDirectory(mac);
    after.set(Property::kLoad, 50);
    const auto journal = after.journal();
    ASSERT_LT(journal.size(), 20U);
    EXPECT_NE(journal[journal.size() - 2].find("world load="), std::string::npos) << "whole lines";
    EXPECT_NE(journal.back().find("22 "), std::string::npos) << "the gap shows in the numbers";
}

}  // namespace
