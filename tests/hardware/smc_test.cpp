#include "core/hardware/smc.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "core/model/json_codec.h"
#include "core/model/number_text.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using simulator::SimulatedMac;
using testing::failureOf;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Sleeps that last so many times as long as they should, and looks at the clock that last so long.
SMC::Surroundings surroundings(SimulatedMac& mac, double slept = 1, double looked = 0) {
    auto surroundings = SMC::Surroundings::ofThisMachine();
    surroundings.sleep = [&mac, slept](double seconds) { mac.advance(seconds * slept); };
    surroundings.now = [&mac, looked] {
        mac.advance(looked);
        return mac.now();
    };
    return surroundings;
}

// ---- Reading, writing and switching by their rules, on twins of random Intel machines
// ------------

// What SMC does, in plain steps and with its own memory; every operation gives its failure's text.
struct Rules {
    SimulatedMac& mac;
    SMC::Surroundings around;
    std::uint32_t connection = fv_smc_open();
    std::map<std::string, FVValue> forms = {};
    std::map<int, std::string> takenBy = {};
    double maskBefore = 0;

    std::optional<double> number(const std::string& key) const {
        FVValue value{};
        const int code = fv_smc_read(connection, key.c_str(), &value);
        const double number = code == 0 ? fv_decode(&value) : kNaN;
        return std::isfinite(number) ? std::optional(number) : std::nullopt;
    }
    void send(const std::string& key, double number) {
        if (forms.contains(key) && fv_encode(&forms[key], number) == 0) {
            fv_smc_write(connection, key.c_str(), &forms[key]);
        }
    }
    std::string write(const std::string& key, double number, bool take, bool giveBack) {
        FVValue value{};
        if (const int code = fv_smc_read(connection, key.c_str(), &value); code != 0) {
            if (giveBack) {
                send(key, number);
            }
            return "SMC " + key + " 读取失败（" + std::to_string(code) + "）";
        }
        if (take) {
            forms[key] = value;
        }
        if (fv_encode(&value, number) != 0) {
            return "SMC " + key + " 不支持写入这个数值";
        }
        if (const int code = fv_smc_write(connection, key.c_str(), &value); code != 0) {
            return "SMC " + key + " 写入失败（" + std::to_string(code) + "）；此机型可能不支持控制";
        }
        const double deadline = around.now() + 2;
        std::string last = "无";
        for (int round = 0, row = 0; round < 45 && around.now() <= deadline; ++round) {
            const auto reading = this->number(key);
            last = reading ? fixed2(*reading) : last;
            row = reading && std::fabs(*reading - number) < 1 ? row + 1 : 0;
            if (row == 2) {
                return {};
            }
            if (around.now() >= deadline) {
                break;
            }
            around.sleep(0.05);
        }
        return "SMC " + key + " 回读不一致，操作未确认（目标" + fixed2(number) + "，读回 " + last +
               "；已等待最多 2 秒）";
    }
    std::optional<double> mask(int fan, bool manual) {
        std::optional<double> last;
        for (int reading = 0; reading < 4; ++reading) {
            const auto mask = number("FS! ");
            if (mask && mask == last && *mask >= 0 && *mask <= 65535) {
                bool none = true;
                for (const auto& taken : takenBy) {
                    none = none && taken.second != "FS! ";
                }
                maskBefore = none ? std::floor(*mask) : maskBefore;
                const int bits = static_cast<int>(*mask), bit = 1 << fan;
                return manual ? bits | bit : bits & ~bit;
            }
            last = mask;
        }
        return std::nullopt;
    }
    std::string setManual(int fan, bool manual) {
        if (fan < 0 || fan > 9) {
            return "无效风扇编号";
        }
        const std::string modeKey = "F" + std::to_string(fan) + "Md";
        const std::string held = takenBy.contains(fan) ? takenBy[fan] : "";
        // A failed reading is made once more, before the mask is thought of.
        const bool mode = held != "FS! " && (number(modeKey) || number(modeKey));
        const std::string key = held.empty() ? (mode ? modeKey : "FS! ") : held;
        const auto order = key == "FS! " ? mask(fan, manual)
                           : mode        ? std::optional<double>(manual)
                                         : std::nullopt;
        if (!order) {
            if (!manual && !held.empty()) {
                send(key, key == "FS! " ? maskBefore : 0);
            }
            return "风扇 " + std::to_string(fan + 1) + " 没有可识别的模式接口";
        }
        if (manual) {
            takenBy[fan] = key;
        }
        const std::string failure = write(key, *order, manual, !manual);
        if (!manual && failure.empty()) {
            takenBy.erase(fan);
        }
        return failure;
    }
    // The mode key decides; without one the mask does, which also makes every "automatic" unsure
    // as long as it forces a fan.
    static std::optional<bool> manual(std::optional<double> mode, std::optional<double> mask,
                                      int fan) {
        const bool bits = mask && *mask >= 0 && *mask <= 65535;
        const bool bit = bits && (static_cast<int>(*mask) >> fan) % 2 == 1;
        const bool free = mode ? *mode == 0 || *mode == 3 : bits && !bit;
        return (mode ? *mode == 1 : bit)       ? std::optional(true)
               : free && mask.value_or(0) == 0 ? std::optional(false)
                                               : std::nullopt;
    }
    std::vector<FanReading> fans() {
        const auto count = number("FNum");
        const int fans = count && *count >= 0 && *count <= 10 ? static_cast<int>(*count) : 0;
        const auto mask = fans > 0 ? number("FS! ") : std::nullopt;
        std::vector<FanReading> list;
        for (int fan = 0; fan < fans; ++fan) {
            const auto of = [&](const char* name) {
                return number("F" + std::to_string(fan) + name);
            };
            FanReading reading;
            reading.id = fan;
            reading.manual = manual(of("Md"), mask, fan);
            reading.rpm = of("Ac");
            reading.minimum = of("Mn");
            reading.maximum = of("Mx");
            reading.controllable =
                of("Tg") && reading.maximum.value_or(0) > 0 && *reading.maximum <= 12000;
            list.push_back(reading);
        }
        return list;
    }
};

class Twins {
public:
    explicit Twins(unsigned seed) : random_(seed), dump_(dump()) {}

    void run() {
        const double slept = oneOf<double>({1, 1, 0.1, 30});
        const double looked = oneOf<double>({0, 0, 0, 0.03, 0.8, 2.5});
        std::optional<simulator::Attachment> attached;
        attached.emplace(second_.machine());
        Rules rules{second_, surroundings(second_, slept, looked)};
        attached.reset();
        attached.emplace(first_.machine());
        SMC smc(surroundings(first_, slept, looked));
        for (int step = 0; step < 25; ++step) {
            befall();
            const auto [code, rule] = operation();
            const std::string done = code(smc);
            attached.reset();
            attached.emplace(second_.machine());
            ASSERT_EQ(done, rule(rules)) << "step " << step << "\n" << dump_;
            attached.reset();
            attached.emplace(first_.machine());
            ASSERT_EQ(first_.writes(), second_.writes()) << "step " << step << "\n" << dump_;
            ASSERT_EQ(first_.calls(), second_.calls()) << "step " << step;
            ASSERT_NEAR(first_.now(), second_.now(), 1e-9) << "step " << step;
        }
    }

private:
    bool chance(unsigned in) { return random_() % in == 0; }
    template <class T>
    T oneOf(const std::vector<T>& values) {
        return values[random_() % values.size()];
    }

    std::string dump() {
        const auto row = [](std::string key, std::string form, std::string bytes) {
            return bytes.empty() ? "" : key + "," + form + ",D0," + bytes + ",00\n";
        };
        std::string rows = "key,type,size,attributes,bytes,result\nTC0P,sp78,2,C0,3200,00\n";
        rows += row("FNum", "ui8 ,1", oneOf<std::string>({"02", "03", "0A", "0B", ""}));
        const auto odd = [&](std::string key) {  // 65536, 0.5 or -0.5
            return oneOf<std::string>({row(key, "ui32,4", "00010000"), row(key, "sp78,2", "0080"),
                                       row(key, "sp78,2", "FF80")});
        };
        rows += chance(6)
                    ? odd("FS! ")
                    : row("FS! ", "ui16,2", oneOf<std::string>({"0000", "0000", "0400", "", ""}));
        for (const std::string fan : {"F0", "F1", "F2"}) {
            rows += chance(9) ? odd(fan + "Md")
                              : row(fan + "Md", "ui8 ,1",
                                    oneOf<std::string>({"00", "00", "03", "02", ""}));
            for (const std::string key : {"Ac", "Tg", "Mn", "Mx"}) {  // 2000, 12000, 12001, 0
                const auto fixed = oneOf<std::string>({"1F40", "BB80", "BB84", "0000", ""});
                rows += fixed.empty() ? row(fan + key, "flt ,4", "0000C07F")  // not a number
                                      : row(fan + key, "fpe2,2", fixed);
            }
        }
        return rows;
    }

    // The same to both machines.
    void befall() {
        const auto key = oneOf<std::string>({"", "", "F0Md", "F1Md", "FS! ", "F0Tg"});
        const std::string named = key.empty() ? "FS! " : key;
        const auto code = oneOf<int>({0x82, 0x84, 0x85, -536870207});
        const auto times = oneOf<int>({1, 1, 2, 3, simulator::kForGood});
        const auto call = oneOf<std::uint64_t>({1, 2, 3, 5, 8, 13});
        const auto delay = oneOf<double>({0.3, 1.9, 2.1, 5});
        const std::vector<std::function<void(SimulatedMac&)>> faults{
            [&](auto& mac) { mac.refuseReads(key, code, times); },
            [&](auto& mac) { mac.refuseWrites(key, code, times); },
            [&](auto& mac) { mac.ignoreWrites(key, times); },
            [&](auto& mac) { mac.delayWrites(key, delay, times); },
            [&](auto& mac) { mac.readZeros(key, times); },
            [&](auto& mac) { mac.freezeReads(named, times); },
            [&](auto& mac) { mac.atCall(call).refuseReads(key, code, times); },
            [&](auto& mac) { mac.atCall(call).refuseCalls(code, times); },
            [&](auto& mac) { mac.otherTakesFan(static_cast<int>(call % 3)); },
            [](auto& mac) { mac.clearFaults(); },
            [](auto& mac) { mac.clearFaults(); }};
        if (chance(3)) {
            const auto fault = oneOf(faults);
            fault(first_);
            fault(second_);
        }
    }

    // The code's act and the rules' own.
    std::pair<std::function<std::string(SMC&)>, std::function<std::string(Rules&)>> operation() {
        const auto key = oneOf<std::string>({"F0Tg", "F1Tg", "F0Md", "F0Mx", "TC0P", "ZZZZ"});
        const auto number = oneOf<double>({0, 1, 2000.4, 3000.126, 16384, -1, kNaN});
        const auto fan = oneOf<int>({0, 0, 1, 1, 2, 9, 10, -1});
        const bool manual = chance(2);
        if (chance(5)) {
            return {[=](auto& smc) { return failureOf([&] { smc.write(key, number); }); },
                    [=](auto& rules) { return rules.write(key, number, false, false); }};
        }
        if (chance(4)) {
            return {[](auto& smc) { return encodeJson(smc.fans()); },
                    [](auto& rules) { return encodeJson(rules.fans()); }};
        }
        return {[=](auto& smc) { return failureOf([&] { smc.setManual(fan, manual); }); },
                [=](auto& rules) { return rules.setManual(fan, manual); }};
    }

    std::mt19937 random_;
    std::string dump_;
    SimulatedMac first_ = simulator::macFromKeyDump(dump_);
    SimulatedMac second_ = simulator::macFromKeyDump(dump_);
};

TEST(SMCTest, DoesWhatTheRulesSay) {
    for (unsigned seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Twins(seed).run();
        if (HasFatalFailure()) {
            return;
        }
    }
}

// ---- Every kind of machine
// -----------------------------------------------------------------------

TEST(SMCTest, GivesFansBackThatCannotBeReadAndSaysSo) {
    const struct {
        std::string driver;
        std::function<SimulatedMac()> made;
    } kinds[] = {{"F0Md", [] { return simulator::intelMac(2); }},
                 {"FS! ", [] { return simulator::intelMacWithMaskOnly(2); }},
                 {"F0Md", [] { return simulator::appleSiliconMac(2); }},
                 {"F0md", [] { return simulator::appleSiliconMac(2, {.lowerCaseModeKey = true}); }},
                 {"F0Md", [] {  // with a mask that drives nothing
                      auto mac = simulator::intelMac(2);
                      mac.setKey("FS! ", "ui16", {0, 0});
                      return mac;
                  }}};
    for (const std::string unreadable : {"", "F0Md", "F0md", "FS! "}) {
        for (const auto& [driver, made] : kinds) {
            auto mac = made();
            const auto attached = mac.attach();
            SMC smc(surroundings(mac));
            smc.setManual(0, true);
            smc.setManual(1, true);
            ASSERT_TRUE(mac.fanManual(0) && mac.fanManual(1)) << driver;
            mac.refuseReads(unreadable, simulator::kNotReadable);
            const std::string told = failureOf([&] { smc.setManual(0, false); }) +
                                     failureOf([&] { smc.setManual(1, false); });
            EXPECT_TRUE(mac.allFansAutomatic()) << driver << " " << unreadable;
            EXPECT_EQ(told.empty(), !unreadable.empty() && unreadable != driver) << told;
            mac.clearFaults();
            EXPECT_EQ(failureOf([&] { smc.setManual(0, false); }), "") << driver;
        }
    }
}

TEST(SMCTest, AppleSiliconIsHandedOver) {
    using Options = simulator::AppleSiliconOptions;
    auto mac = simulator::appleSiliconMac(
        2, Options{.manualMode = Options::ManualMode::kRefusedUntilUnlocked});
    const auto attached = mac.attach();
    SMC smc(surroundings(mac));
    EXPECT_EQ(failureOf([&] { smc.setManual(0, true); }),
              "SMC Ftst 写入失败（-3）；此机型可能不支持控制");
    EXPECT_EQ(failureOf([&] { smc.setManual(10, true); }), "无效风扇编号");
    EXPECT_EQ(SMC::notAdmitted("Ftst"), "SMC Ftst 写入失败（-3）；此机型可能不支持控制");
    EXPECT_EQ(mac.number("F0Md"), 3);
    mac.setUnreadable("F0Md");
    EXPECT_EQ(failureOf([&] { smc.setManual(0, true); }),
              "此风扇没有可识别的 Apple Silicon 模式接口");
}

TEST(SMCTest, WaitsForRealBetweenReadings) {
    const auto around = SMC::Surroundings::ofThisMachine();
    const double before = around.now();
    around.sleep(0.05);
    EXPECT_GE(around.now() - before, 0.05);
}

TEST(SMCTest, GivesEveryConnectionBack) {
    auto mac = simulator::intelMac(1);
    const auto attached = mac.attach();
    {
        SMC smc;
        smc.reopen();
        EXPECT_EQ(smc.number("FNum"), 1.0);
        mac.refuseOpening(-536870212, simulator::kOnce);
        smc.reopen();
        EXPECT_FALSE(smc.available());
        EXPECT_EQ(failureOf([&] { smc.raw("FNum"); }), "SMC FNum 读取失败（-1）");
        EXPECT_TRUE(smc.fans().empty() && smc.sensorKeys().empty());
    }
    EXPECT_EQ(mac.ports(), simulator::PortCounts{});
}

// ---- Listing
// -------------------------------------------------------------------------------------

TEST(SMCSensorKeysTest, SurvivesAControllerThatListsBadly) {
    auto mac = simulator::intelMac(2);
    const auto attached = mac.attach();
    SMC smc(surroundings(mac));
    const auto all = smc.sensorKeys();
    EXPECT_TRUE(std::ranges::is_sorted(all, {}, &SMC::SensorKey::key));
    EXPECT_EQ(smc.temperatureKeys(),
              (std::vector<std::string>{"TB0T", "TC0C", "TC0P", "TC1C", "TG0P", "TH0A"}));
    // Every single call of the enumeration fails once: at most one sensor is missing.
    mac.clearCalls();
    (void)smc.sensorKeys();
    const auto calls = mac.calls().total();
    for (std::uint64_t k = 3; k <= calls; ++k) {  // the first two read the count
        mac.atCall(k).refuseCalls(simulator::kKeyNotFound, simulator::kOnce);
        const auto some = smc.sensorKeys();
        EXPECT_TRUE(some.size() == all.size() || some.size() + 1 == all.size()) << k;
        mac.clearFaults();
    }
    mac.setKey("#KEY", "ui32", {0x00, 0x00, 0x27, 0x10});
    EXPECT_EQ(smc.sensorKeys(), all) << "more keys are announced than there are";
    mac.setKey("#KEY", "ui32", {0x00, 0x00, 0x27, 0x11});
    EXPECT_TRUE(smc.sensorKeys().empty()) << "10001 is garbage";
}

}  // namespace
}  // namespace ferovane
