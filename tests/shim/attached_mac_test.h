// A test on a simulated Mac that must leave nothing behind: neither objects nor ports.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "live_objects.h"
#include "simulator/machine/simulated_mac.h"

namespace tests {

class AttachedMacTest : public testing::Test {
protected:
    explicit AttachedMacTest(simulator::SimulatedMac machine) : mac(std::move(machine)) {}

    void TearDown() override {
        EXPECT_EQ(simulator::liveObjects(), liveBefore_);
        EXPECT_EQ(mac.ports(), simulator::PortCounts{});
    }

    simulator::SimulatedMac mac;

private:
    simulator::Attachment attachment_ = mac.attach();
    std::int64_t liveBefore_ = simulator::liveObjects();
};

}  // namespace tests
