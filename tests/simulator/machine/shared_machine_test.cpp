// One machine, several processes, some of which are killed.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine/connection.h"
#include "tests/simulator/machine/scratch_directory.h"

namespace {

using namespace simulator;

// Runs an action in a process that is attached to the machine.
template <typename Action>
pid_t forkAttached(const std::string& directory, const Action& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        SimulatedMac mac = openMachineDirectory(directory);
        mac.set(Property::kPrivileged, 1);
        const auto attached = mac.attach();
        const Connection smc;
        action(smc);
        ::_exit(0);
    }
    return child;
}

void writeForEver(const Connection& smc) {
    for (int round = 0;; ++round) {
        smc.write("F0Md", 1);
        smc.write("F0Tg", 3000 + round % 1000);
        smc.write("F0Md", 0);
    }
}

// Lines are numbered without a gap, each is whole, and the last write is what the machine shows.
void expectWholeJournal(SimulatedMac& mac) {
    unsigned long long number = 0;
    for (const std::string& line : mac.journal()) {
        ASSERT_EQ(std::strtoull(line.c_str(), nullptr, 10), ++number) << line;
        if (line.find(" write ") != std::string::npos) {
            ASSERT_EQ(line.substr(line.size() - 6), " -> 00") << line;
        }
    }
}

TEST(SharedMachineTest, TwoProcessesWriteAtOnceAndNoLineIsLost) {
    const ScratchDirectory scratch;
    const std::string directory = scratch.path("mac");
    SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
    constexpr int kWrites = 500;
    const auto writes = [](const Connection& smc) {
        for (int i = 0; i < kWrites; ++i) {
            smc.write("F0Tg", 3000 + i);
        }
    };
    const pid_t children[] = {forkAttached(directory, writes), forkAttached(directory, writes)};
    for (const pid_t child : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    expectWholeJournal(mac);
    EXPECT_EQ(mac.calls().writes, 2U * kWrites);
    for (const pid_t child : children) {
        const std::string who = " " + std::to_string(child) + " write ";
        int lines = 0;
        for (const std::string& line : mac.journal()) {
            lines += line.find(who) != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(lines, kWrites);
    }
}

TEST(SharedMachineTest, KilledWritersNeitherLockNorDamageIt) {
    const ScratchDirectory scratch;
    const std::string directory = scratch.path("mac");
    SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
    mac.otherTakesFan(1);  // so that the controller leaves its target alone
    std::srand(1);
    for (int round = 0; round < 40; ++round) {
        const pid_t child = forkAttached(directory, writeForEver);
        const auto before = mac.calls().writes;
        while (mac.calls().writes == before) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::rand() % 2000));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        mac.otherWrites("F1Tg", 2000 + round);  // hangs if the lock was lost
        EXPECT_EQ(mac.fanTarget(1), 2000 + round);
    }
    expectWholeJournal(mac);
    EXPECT_EQ(mac.keyCount(), 855U);
    EXPECT_EQ(openMachineDirectory(directory).number("F1Mx"), 4905);
}

TEST(SharedMachineTest, TheJournalTellsTheStateThatAKilledWriterLeft) {
    const ScratchDirectory scratch;
    const std::string directory = scratch.path("mac");
    SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
    for (int round = 0; round < 40; ++round) {
        const pid_t child = forkAttached(directory, writeForEver);
        while (mac.calls().writes % 7 != 3) {
            std::this_thread::yield();
        }
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        const std::string writes = mac.writes();
        const std::size_t last = writes.rfind("F0Md=");
        ASSERT_NE(last, std::string::npos);
        EXPECT_EQ(mac.fanManual(0), writes[last + 5] == '1');
    }
}

// Dies with the lock held, after doing something to the machine.
template <typename Deed>
void dieLocked(const std::string& directory, const Deed& deed) {
    const pid_t child = ::fork();
    if (child == 0) {
        SimulatedMac mac = openMachineDirectory(directory);
        mac.machine().locked([&deed](World& world) {
            deed(world);
            ::_exit(0);
        });
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

std::string journalFile;

void appendTo(const std::string& file, const std::string& text) {
    std::ofstream(file, std::ios::app) << text << std::flush;
}

void openWriteOfMode(World& world) {
    world.state().openWrite = {1, 4242, packed("F0Md"), 0, world.state().journalLines + 1, {1}};
}

TEST(SharedMachineTest, WhateverADeadProcessLeftOpenIsCompletedOnce) {
    struct {
        const char* what;
        void (*deed)(World&);
    } const cases[] = {
        {"a write that was not applied yet", openWriteOfMode},
        {"a write that was applied and not told",
         [](World& world) {
             openWriteOfMode(world);
             world.state().fans[0].mode = 1;
         }},
        {"a line that was not written yet",
         [](World& world) {
             openWriteOfMode(world);
             world.state().fans[0].mode = 1;
             WorldState& state = world.state();
             state.openLineSize = static_cast<std::uint32_t>(std::snprintf(
                 state.openLine, sizeof state.openLine, "2 0.000 4242 write F0Md=1 -> 00"));
             ++state.journalLines;
         }},
        {"a line of which a part was written",
         [](World& world) {
             openWriteOfMode(world);
             world.state().fans[0].mode = 1;
             WorldState& state = world.state();
             state.openLineSize = static_cast<std::uint32_t>(std::snprintf(
                 state.openLine, sizeof state.openLine, "2 0.000 4242 write F0Md=1 -> 00"));
             ++state.journalLines;
             appendTo(journalFile, "2 0.0");
         }},
        {"a line that was written and not closed",
         [](World& world) {
             openWriteOfMode(world);
             world.state().fans[0].mode = 1;
             world.note("4242", "write F0Md=1 -> 00");
             world.state().openLineSize =
                 static_cast<std::uint32_t>(std::string_view(world.state().openLine).size());
         }},
    };
    for (const auto& wanted : cases) {
        const ScratchDirectory scratch;
        const std::string directory = scratch.path("mac");
        journalFile = directory + "/journal";
        SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
        dieLocked(directory, wanted.deed);
        EXPECT_TRUE(mac.fanManual(0)) << wanted.what;
        EXPECT_EQ(mac.writes(), "F0Md=1") << wanted.what;
        mac.otherReleasesFan(0);
        expectWholeJournal(mac);
        EXPECT_EQ(mac.journal().size(), 3U) << wanted.what;
    }
}

TEST(SharedMachineTest, AKeyTableThatADeadProcessLeftUnsortedIsSortedAgain) {
    const ScratchDirectory scratch;
    const std::string directory = scratch.path("mac");
    SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
    dieLocked(directory, [](World& world) {
        world.state().keysBusy = 1;
        std::reverse(world.index(), world.index() + world.state().keyCount);
    });
    EXPECT_EQ(mac.number("F1Mx"), 4905);
    EXPECT_EQ(mac.number("FNum"), 2);
}

TEST(SharedMachineTest, ThreadsOfOneProcessShareItToo) {
    SimulatedMac mac = intelMac(2);
    mac.set(Property::kPrivileged, 1);
    const auto attached = mac.attach();
    constexpr int kReads = 2000;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            const Connection smc;
            for (int read = 0; read < kReads; ++read) {
                EXPECT_EQ(smc.read("F1Mx"), 5800);
            }
        });
    }
    std::thread clock([&mac] {
        for (int i = 0; i < 100; ++i) {
            mac.advance(1);
            mac.set(Property::kLoad, i);
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    clock.join();
    EXPECT_EQ(mac.calls().reads, 4U * kReads);
    EXPECT_EQ(mac.ports(), PortCounts{});
}

TEST(SharedMachineTest, FollowsTheHostsClock) {
    const ScratchDirectory scratch;
    SimulatedMac mac = createMachineDirectory(scratch.path("mac"), "iMac18,3");
    mac.set(Property::kSpeed, 1000);
    mac.set(Property::kLoad, 100);
    const double die = mac.dieTemperature();
    const double before = mac.now();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_GE(mac.now() - before, 0.055);
    EXPECT_GT(mac.dieTemperature(), die + 5);
    EXPECT_THROW(mac.advance(1), std::logic_error);
}

}  // namespace
