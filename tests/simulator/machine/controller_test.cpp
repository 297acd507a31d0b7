// The controller as the shim reaches it: both kernel calls, result codes, writes, enumeration.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "shim/fv.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace simulator;

class Connection {
public:
    Connection() : handle_(fv_smc_open()) {}
    ~Connection() { fv_smc_close(handle_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    std::uint32_t get() const { return handle_; }

    int read(const char* key, double& number) const {
        FVValue value = {};
        const int code = fv_smc_read(handle_, key, &value);
        number = code == 0 ? fv_decode(&value) : NAN;
        return code;
    }
    int write(const char* key, double number) const {
        FVValue value = {};
        if (const int code = fv_smc_read(handle_, key, &value); code != 0) {
            return code;
        }
        return fv_encode(&value, number) == 0 ? fv_smc_write(handle_, key, &value) : -99;
    }

private:
    std::uint32_t handle_;
};

TEST(ControllerTest, ReadsAndWritesFansOfAnIntelMac) {
    SimulatedMac mac = intelMac(2);
    {
        const auto attached = mac.attach();
        const Connection smc;
        ASSERT_NE(smc.get(), 0U);
        double number = 0;
        EXPECT_EQ(smc.read("FNum", number), 0);
        EXPECT_EQ(number, 2);
        EXPECT_EQ(smc.read("F1Mx", number), 0);
        EXPECT_EQ(number, 5800);
        EXPECT_EQ(smc.read("Nope", number), kKeyNotFound);
        EXPECT_EQ(smc.write("F0Md", 1), 0);
        EXPECT_EQ(smc.write("F0Tg", 6200), 0);
        EXPECT_EQ(mac.writes(), "F0Md=1 F0Tg=6200");
        EXPECT_FALSE(mac.allFansAutomatic());
        EXPECT_EQ(smc.write("F0Md", 0), 0);
    }
    EXPECT_TRUE(mac.allFansAutomatic());
    EXPECT_EQ(mac.ports(), PortCounts{});
    EXPECT_EQ(fv_smc_open(), 0U) << "detached, there is no controller";
}

}  // namespace
