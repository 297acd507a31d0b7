// One machine directory, several processes, some of which are killed.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <thread>

#include "simulator/machine/machine.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/shim/child_process.h"
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

    // A process that writes until it is killed.
    std::function<int()> writer = [this] {
        SimulatedMac own = openMachineDirectory(directory);
        const auto attached = own.attach();
        const Connection smc;
        for (int write = 0;; ++write) {
            smc.write("F0Md", write % 2);
            smc.write("F0Tg", 3000 + write % 1000);
        }
        return 0;
    };

    ScratchDirectory scratch;
    std::string directory = scratch.path("mac");
    SimulatedMac mac = createMachineDirectory(directory, "MacBookPro16,1");
};

TEST_F(SharedMachineTest, WritersThatAreKilledNeitherLockNorDamageItAndNoLineIsLost) {
    mac.set(Property::kPrivileged, 1);
    mac.otherTakesFan(1);  // so that the controller leaves its target alone
    std::srand(1);
    for (int round = 0; round < 40; ++round) {
        const auto before = mac.calls().writes;
        tests::ChildProcess writers[] = {tests::ChildProcess(writer), tests::ChildProcess(writer)};
        while (mac.calls().writes == before) {
            std::this_thread::yield();
        }
        for (tests::ChildProcess& child : writers) {
            std::this_thread::sleep_for(std::chrono::microseconds(std::rand() % 1000));
            ::kill(child.pid(), SIGKILL);
            ASSERT_EQ(child.exitStatus(), -SIGKILL);
        }
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

TEST_F(SharedMachineTest, AKeyTableThatWasBeingSortedIsSortedAgain) {
    ASSERT_EQ(tests::exitStatusOf([this] {  // dies with the lock held
                  mac.machine().locked([](World& world) {
                      world.state().keysBusy = 1;
                      std::reverse(world.index(), world.index() + world.state().keyCount);
                      ::_exit(7);
                  });
                  return 0;
              }),
              7);
    EXPECT_EQ(mac.number("F1Mx"), 4905);
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

// A full disk, played by a limit on file sizes; in a process of its own, for it is not undone.
TEST_F(SharedMachineTest, AJournalOnAFullDiskLosesWholeLinesAndTheMachineGoesOn) {
    ASSERT_EQ(tests::exitStatusOf([this] {
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit small = {200, 200};
                  ::setrlimit(RLIMIT_FSIZE, &small);
                  for (int load = 1; load <= 20; ++load) {
                      mac.set(Property::kLoad, load);
                  }
                  return 0;
              }),
              0);
    EXPECT_EQ(mac.value(Property::kLoad), 20);
    mac.set(Property::kLoad, 50);
    const auto journal = mac.journal();
    ASSERT_LT(journal.size(), 20U);
    EXPECT_NE(journal[journal.size() - 2].find("world load="), std::string::npos) << "whole lines";
    EXPECT_EQ(journal.back().find("22 "), 0U) << "the gap shows in the numbers";
}

}  // namespace
