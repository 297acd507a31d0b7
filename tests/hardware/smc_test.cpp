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

#include "core/hardware/smc_verification.h"
#include "core/model/json_codec.h"
#include "core/model/number_text.h"
#include "simulator/machine/simulated_mac.h"
#include "tests/support/failure_text.h"

namespace ferovane {
namespace {

using simulator::SimulatedMac;
using testing::failureOf;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

SMC::Surroundings surroundings(SimulatedMac& mac, double slept = 1) {
    auto surroundings = SMC::Surroundings::ofThisMachine();
    surroundings.sleep = [&mac, slept](double seconds) { mac.advance(seconds * slept); };
    return surroundings;
}

// ---- Reading, writing and switching by their rules, on twins of random Intel machines
// ------------

// What SMC does, in plain steps and with its own memory; every operation gives its failure's text.
struct Rules {
    SimulatedMac& mac;
    double slept;
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
        const double deadline = fv_uptime_seconds() + 2;
        std::string last = "无";
        for (int round = 0, row = 0; round < 45 && fv_uptime_seconds() <= deadline; ++round) {
            const auto reading = this->number(key);
            last = reading ? fixed2(*reading) : last;
            row = reading && std::fabs(*reading - number) < 1 ? row + 1 : 0;
            if (row == 2) {
                return {};
            }
            if (fv_uptime_seconds() >= deadline) {
                break;
            }
            mac.advance(0.05 * slept);
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
            reading.manual = SMCVerification::manualState(of("Md"), mask, fan, mask);
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
        const double callSeconds = oneOf<double>({0, 0, 0.03, 0.8});
        for (SimulatedMac* mac : {&first_, &second_}) {
            mac->setAppleSilicon(false);
            mac->setCallDuration(callSeconds);
        }
        std::optional<simulator::Attachment> attached;
        attached.emplace(second_.machine());
        Rules rules{second_, slept};
        attached.reset();
        attached.emplace(first_.machine());
        SMC smc(surroundings(first_, slept));
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
    using Act = std::function<std::string(SMC&)>;
    using Rule = std::function<std::string(Rules&)>;

    bool chance(unsigned in) { return random_() % in == 0; }
    template <class T>
    T oneOf(const std::vector<T>& values) {
        return values[random_() % values.size()];
    }

    std::string dump() {
        std::string rows = "key,type,size,attributes,bytes,result\n";
        rows += oneOf<std::string>({"FNum,ui8 ,1,80,02,00\n", "FNum,ui8 ,1,80,03,00\n",
                                    "FNum,ui8 ,1,80,0A,00\n", "FNum,ui8 ,1,80,0B,00\n",
                                    "FNum,sp78,2,80,FF00,00\n", ""});
        rows += oneOf<std::string>({"FS! ,ui16,2,C0,0000,00\n", "FS! ,ui16,2,C0,0400,00\n",
                                    "FS! ,ui32,4,C0,00010000,00\n", "FS! ,flt ,4,C0,0000C07F,00\n",
                                    "", ""});
        for (const std::string fan : {"F0", "F1", "F2"}) {
            rows += oneOf<std::string>({fan + "Md,ui8 ,1,D0,00,00\n", fan + "Md,ui8 ,1,D0,00,00\n",
                                        fan + "Md,ui16,2,D0,0003,00\n",
                                        fan + "Md,hex_,1,D0,00,00\n", ""});
            const bool fixed = chance(2);
            for (const std::string key : {"Ac", "Tg", "Mn", "Mx"}) {
                // 2000, 5000, 12000, 12001, 0, not a number
                rows +=
                    fan + key + (fixed ? ",fpe2,2,D0," : ",flt ,4,D0,") +
                    (fixed ? oneOf<std::string>({"1F40", "1F40", "4E20", "BB80", "BB84", "0000"})
                           : oneOf<std::string>({"0000FA44", "00409C45", "00803B46", "00843B46",
                                                 "00000000", "0000C07F"})) +
                    ",00\n";
            }
        }
        return rows + "TC0P,sp78,2,C0,3200,00\n";
    }

    // The same to both machines.
    void befall() {
        if (!chance(3)) {
            return;
        }
        const auto key = oneOf<std::string>({"", "", "F0Md", "F1Md", "FS! ", "F0Tg", "F1Tg"});
        const auto code = oneOf<int>({0x82, 0x84, 0x85, -536870207});
        const auto times =
            oneOf<int>({simulator::kOnce, simulator::kOnce, 2, 3, simulator::kForGood});
        const auto call = oneOf<std::uint64_t>({1, 2, 3, 5, 8, 13});
        const auto delay = oneOf<double>({0.3, 1.9, 2.1, 5});
        const auto kind = random_() % 12;
        for (SimulatedMac* mac : {&first_, &second_}) {
            switch (kind) {
                case 0:
                    mac->refuseReads(key, code, times);
                    break;
                case 1:
                    mac->refuseWrites(key, code, times);
                    break;
                case 2:
                    mac->ignoreWrites(key, times);
                    break;
                case 3:
                    mac->delayWrites(key, delay, times);
                    break;
                case 4:
                    mac->readZeros(key, times);
                    break;
                case 5:
                    mac->freezeReads(key.empty() ? "FS! " : key, times);
                    break;
                case 6:
                    mac->atCall(call).refuseReads(key, code, times);
                    break;
                case 7:
                    mac->atCall(call).refuseCalls(code, times);
                    break;
                case 8:
                    mac->otherTakesFan(static_cast<int>(call % 3));
                    break;
                case 9:
                    mac->wrongKeySize(key, 33, times);
                    break;
                default:
                    mac->clearFaults();
                    break;
            }
        }
    }

    std::pair<Act, Rule> operation() {
        const auto key =
            oneOf<std::string>({"F0Tg", "F1Tg", "F0Md", "F0Mx", "FNum", "TC0P", "ZZZZ"});
        const auto number = oneOf<double>({0, 1, 2000.4, 3000.126, 16384, -1, kNaN});
        const auto fan = oneOf<int>({0, 0, 1, 1, 2, 9, 10, -1});
        const bool manual = chance(2);
        switch (random_() % 6) {
            case 0:
                return {[=](SMC& smc) { return failureOf([&] { smc.write(key, number); }); },
                        [=](Rules& rules) { return rules.write(key, number, false, false); }};
            case 1:
                return {[](SMC& smc) { return encodeJson(smc.fans()); },
                        [](Rules& rules) { return encodeJson(rules.fans()); }};
            default:
                return {[=](SMC& smc) { return failureOf([&] { smc.setManual(fan, manual); }); },
                        [=](Rules& rules) { return rules.setManual(fan, manual); }};
        }
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

// ---- When a fan counts as manual
// -----------------------------------------------------------------

TEST(ManualStateTest, FollowsModeKeyThenMaskThenHandOver) {
    using Number = std::optional<double>;
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    for (const Number local : {Number{}, Number{0}, Number{-0.0}, Number{1}, Number{2}, Number{3},
                               Number{0.5}, Number{kNaN}}) {
        for (const Number flags : {Number{}, Number{0}, Number{4}, Number{4.9}, Number{65535},
                                   Number{65535.5}, Number{-1}, Number{kNaN}, Number{kInfinity}}) {
            for (const int id : {-1, 0, 1, 2, 9, 10, 64}) {
                for (const Number handoff :
                     {Number{}, Number{0}, Number{-0.0}, Number{1}, Number{kNaN}}) {
                    const bool mask = flags && *flags >= 0 && *flags <= 65535 && id >= 0 && id < 10;
                    const bool bit = mask && (static_cast<int>(*flags) >> id) % 2 == 1;
                    const bool free = local ? *local == 0 || *local == 3 : mask && !bit;
                    std::optional<bool> expected;
                    if (local ? *local == 1 : bit) {
                        expected = true;
                    } else if (free && (!handoff || *handoff == 0)) {
                        expected = false;
                    }
                    EXPECT_EQ(SMCVerification::manualState(local, flags, id, handoff), expected)
                        << local.value_or(-9) << " " << flags.value_or(-9) << " " << id << " "
                        << handoff.value_or(-9);
                }
            }
        }
    }
}

// ---- Every kind of machine
// -----------------------------------------------------------------------

SimulatedMac machineOfKind(int kind) {
    using Options = simulator::AppleSiliconOptions;
    switch (kind) {
        case 0:
            return simulator::intelMac(2);
        case 1:
            return simulator::intelMacWithMaskOnly(2);
        case 2:
            return simulator::appleSiliconMac(2);
        case 3:
            return simulator::appleSiliconMac(2, Options{.lowerCaseModeKey = true});
        default: {
            auto mac = simulator::intelMac(2);  // with a mask that drives nothing
            mac.setKey("FS! ", "ui16", {0, 0});
            return mac;
        }
    }
}

TEST(SMCTest, GivesFansBackThatCannotBeReadAndSaysSo) {
    const std::vector<std::string> drivers{"F0Md", "FS! ", "F0Md", "F0md", "F0Md"};
    for (const std::string unreadable : {"", "F0Md", "F0md", "FS! "}) {
        for (int kind = 0; kind < 5; ++kind) {
            auto mac = machineOfKind(kind);
            const auto attached = mac.attach();
            SMC smc(surroundings(mac));
            smc.setManual(0, true);
            smc.setManual(1, true);
            ASSERT_TRUE(mac.fanManual(0) && mac.fanManual(1)) << kind;
            mac.refuseReads(unreadable, simulator::kNotReadable);
            std::string told;
            for (const int fan : {0, 1}) {
                told += failureOf([&] { smc.setManual(fan, false); });
            }
            EXPECT_TRUE(mac.allFansAutomatic()) << kind << " " << unreadable;
            const bool concerned =
                unreadable.empty() || unreadable == drivers[static_cast<std::size_t>(kind)];
            EXPECT_NE(told.empty(), concerned) << kind << " " << unreadable << told;
            mac.clearFaults();
            EXPECT_EQ(failureOf([&] { smc.setManual(0, false); }), "") << kind << unreadable;
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

TEST(SMCTest, WithoutControllerNothingIsInvented) {
    auto mac = simulator::macWithoutController();
    const auto attached = mac.attach();
    SMC smc(surroundings(mac));
    EXPECT_FALSE(smc.available());
    EXPECT_TRUE(smc.fans().empty());
    EXPECT_TRUE(smc.sensorKeys().empty());
    EXPECT_EQ(failureOf([&] { smc.raw("FNum"); }), "SMC FNum 读取失败（-1）");
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
