// The controller as the kernel's user client shows it: one structure call of 80 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "simulator/machine/world.h"

namespace simulator {

inline constexpr std::uint32_t kControllerSelector = 2;
inline constexpr std::uint8_t kWriteCommand = 6;

// The block of every call, in and out, in the host's (little-endian) order.
struct ControllerBlock {
    std::uint32_t key;
    std::uint8_t version[6];
    std::uint8_t padding[2];
    std::uint8_t powerLimits[16];
    std::uint32_t dataSize;
    std::uint32_t dataType;
    std::uint8_t attributes;
    std::uint8_t padding2[3];
    std::uint8_t result;
    std::uint8_t status;
    std::uint8_t command;
    std::uint8_t padding3;
    std::uint32_t index;
    std::uint8_t data[kReturnedBytes];
};
static_assert(sizeof(ControllerBlock) == 80 && offsetof(ControllerBlock, dataSize) == 28 &&
              offsetof(ControllerBlock, result) == 40 && offsetof(ControllerBlock, data) == 48);

struct ControllerAnswer {
    int code;                // IOKit's; 0 when the controller was reached
    std::size_t outputSize;  // bytes returned
};

namespace Controller {

// Happenings by call count strike here. privileged: whether the caller may write.
ControllerAnswer call(World& world, const ControllerBlock& in, ControllerBlock& out,
                      bool privileged);

}  // namespace Controller
}  // namespace simulator
