// One machine directory, several processes, some of which are killed.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine_fixture.h"

namespace {

using namespace simulator;

class SharedMachineTest : public testing::Test {
protected:
    // Lines are numbered without a gap, each is whole, and every write was taken.
    void expectWholeJournal() {
        unsigned long long number = 0;
        for (const std::string& line : mac.journal()) {
            ASSERT_EQ(std::strtoull(line.c_str(), nullptr, 10), ++number) << line;
            if (line.find(" write ") != std::string::npos) {
                ASSERT_EQ(line.substr(line.size() - 6), " -> 00") << line;
            }
        }
    }

    // Runs an action in a process that is attached to the machine.
    template <typename Action>
    pid_t forkAttached(const Action& action) {
        const pid_t child = ::fork();
        if (child == 0) {
            SimulatedMac own = openMachineDirectory(directory);
            own.set(Property::kPrivileged, 1);
            const auto attached = own.attach();
            action(Connection());
            ::_exit(0);
        }
        return child;
    }

    // Dies with the lock held, after doing something to the machine.
    void dieLocked(void (*deed)(World&)) {
        const pid_t child = ::fork();
        if (child == 0) {
            openMachineDirectory(directory).machine().locked([deed](World& world) {
                deed(world);
                ::_exit(0);
            });
        }
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    }

    ScratchDirectory scratch;
    std::string directory = scratch.path("mac");
    SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
};

TEST_F(SharedMachineTest, TwoProcessesWriteAtOnceAndNoLineIsLost) {
    constexpr int kWrites = 500;
    const auto writes = [](const Connection& smc) {
        for (int i = 0; i < kWrites; ++i) {
            smc.write("F0Tg", 3000 + i);
        }
    };
    for (const pid_t child : {forkAttached(writes), forkAttached(writes)}) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        const auto journal = mac.journal();
        const std::string who = " " + std::to_string(child) + " write ";
        EXPECT_EQ(std::count_if(journal.begin(), journal.end(),
                                [&who](const std::string& line) {
                                    return line.find(who) != std::string::npos;
                                }),
                  kWrites);
    }
    expectWholeJournal();
    EXPECT_EQ(mac.calls().writes, 2U * kWrites);
}

TEST_F(SharedMachineTest, KilledWritersNeitherLockNorDamageIt) {
    mac.otherTakesFan(1);  // so that the controller leaves its target alone
    std::srand(1);
    for (int round = 0; round < 40; ++round) {
        const auto before = mac.calls().writes;
        const pid_t child = forkAttached([](const Connection& smc) {
            for (int write = 0;; ++write) {
                smc.write("F0Md", write % 2);
                smc.write("F0Tg", 3000 + write % 1000);
            }
        });
        while (mac.calls().writes == before) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(std::rand() % 2000));
        ::kill(child, SIGKILL);
        ASSERT_EQ(::waitpid(child, nullptr, 0), child);
        mac.otherWrites("F1Tg", 2000 + round);  // hangs if the lock was lost
        EXPECT_EQ(mac.fanTarget(1), 2000 + round);
        const std::string writes = mac.writes();
        const std::size_t last = writes.rfind("F0Md=");
        ASSERT_NE(last, std::string::npos);
        EXPECT_EQ(mac.fanManual(0), writes[last + 5] == '1') << "as the journal tells";
    }
    expectWholeJournal();
    EXPECT_EQ(openMachineDirectory(directory).number("F1Mx"), 4905);
}

constexpr char kLine[] = "2 0.000 4242 write F0Md=1 -> 00";
std::string journalFile;

void beginWrite(World& world) {
    world.state().openWrite = {1, 4242, packed("F0Md"), 0, world.state().journalLines + 1, {1}};
}

void beginLine(World& world) {
    beginWrite(world);
    WorldState& state = world.state();
    state.fans[0].mode = 1;
    std::copy_n(kLine, sizeof kLine, state.openLine);
    state.openLineSize = sizeof kLine - 1;
    ++state.journalLines;
}

TEST_F(SharedMachineTest, WhateverADeadProcessLeftOpenIsCompletedOnce) {
    void (*const deeds[])(World&) = {
        beginWrite,
        [](World& world) {
            beginWrite(world);
            world.state().fans[0].mode = 1;
        },
        beginLine,
        [](World& world) {
            beginLine(world);
            std::ofstream(journalFile, std::ios::app) << "2 0.0" << std::flush;
        },
        [](World& world) {
            beginLine(world);
            std::ofstream(journalFile, std::ios::app) << kLine << "\n" << std::flush;
        },
    };
    int number = 0;
    for (const auto& deed : deeds) {
        directory = scratch.path("mac" + std::to_string(++number));
        SimulatedMac left = createMachineDirectory(directory, "MacBookPro16,1");
        journalFile = directory + "/journal";
        dieLocked(deed);
        EXPECT_TRUE(left.fanManual(0)) << number;
        EXPECT_EQ(left.writes(), "F0Md=1") << number;
        left.otherReleasesFan(0);
        EXPECT_EQ(left.journal().size(), 3U) << number;
    }
    directory = scratch.path("mac");
    dieLocked([](World& world) {
        world.state().keysBusy = 1;
        std::reverse(world.index(), world.index() + world.state().keyCount);
    });
    EXPECT_EQ(mac.number("F1Mx"), 4905) << "the key table is sorted again";
}

std::string problemOpening(const std::string& directory) {
    try {
        openMachineDirectory(directory);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

TEST_F(SharedMachineTest, WhatIsNoWholeMachineIsRefused) {
    const std::string state = directory + "/state";
    const auto overwrite = [&state](std::size_t offset, const std::string& bytes) {
        std::fstream stream(state, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(static_cast<std::streamoff>(offset));
        stream << bytes;
    };
    overwrite(offsetof(WorldState, keyCount), "\xFF\xFF\xFF\x7F");
    EXPECT_NE(problemOpening(directory).find("incomplete or damaged"), std::string::npos);
    overwrite(offsetof(WorldState, version), "c");
    EXPECT_NE(problemOpening(directory).find("by another version (format 99/"), std::string::npos);
    overwrite(0, "x");
    EXPECT_EQ(problemOpening(directory), state + " is not the state of a simulated Mac");
    EXPECT_EQ(problemOpening("/no/where"), "there is no directory /no/where");
    EXPECT_EQ(problemOpening("/"), "there is no simulated Mac in /");
}

TEST_F(SharedMachineTest, OfManyCreationsAtOnceOneWins) {
    const std::string place = scratch.path("contested");
    for (const char* model : {"M1Pro", "iMac18,3", "M1Pro", "MacBook10,1"}) {
        if (::fork() == 0) {
            try {
                createMachineDirectory(place, model);
                ::_exit(0);
            } catch (const std::runtime_error&) {
                ::_exit(1);
            }
        }
    }
    int winners = 0;
    for (int status = 0; ::wait(&status) > 0;) {
        winners += status == 0 ? 1 : 0;
    }
    EXPECT_EQ(winners, 1);
    EXPECT_EQ(problemOpening(place), "");
}

// A full disk, played by a limit on file sizes; in a process of its own, for it is not undone.
TEST_F(SharedMachineTest, AJournalOnAFullDiskLosesWholeLinesAndTheMachineGoesOn) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small = {200, 200};
        ::setrlimit(RLIMIT_FSIZE, &small);
        for (int load = 1; load <= 20; ++load) {
            mac.set(Property::kLoad, load);
        }
        ::_exit(0);
    }
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_EQ(mac.value(Property::kLoad), 20);
    mac.set(Property::kLoad, 50);
    const auto journal = mac.journal();
    ASSERT_LT(journal.size(), 20U);
    EXPECT_NE(journal[journal.size() - 2].find("world load="), std::string::npos) << "whole lines";
    EXPECT_EQ(journal.back().find("22 "), 0U) << "the gap shows in the numbers";
}

}  // namespace
