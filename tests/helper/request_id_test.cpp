// What an id in a request adds to its reply, and that nothing else ever does.
#include <gtest/gtest.h>

#include "core/control/control_request.h"
#include "tests/helper/session_world.h"
#include "tests/support/dice.h"

namespace ferovane::testing {
namespace {

using Disturbance = std::function<void(SessionWorld&)>;

const std::string kPlan = R"("power-optimize","powerPlan":{"source":"battery","scope":"current",)"
                          R"("lowPower":false,"displayMinutes":5,"disableTurbo":true})";
const std::string kProfile = R"("profile","profile":"balanced")";

// Commands with what follows them in a request.
const std::string kRequests[] = {
    R"("hello")",
    R"("status")",
    R"("status")",
    R"("auto")",
    R"("test-fans","label":"试转")",
    R"("profile","profile":"custom","curve":{"sensor":"CPU","points":[{"temperature":30,)"
    R"("percent":40},{"temperature":90,"percent":100}]})",
    kProfile,
    R"("profile","profile":"automatic")",
    R"("profile","profile":"loud")",
    kPlan,
    R"("turbo-disable")",
    R"("turbo-enable")",
    R"("Auto")",
    R"("power-restore")",
    "7",
    R"("status","duration":0)"};

void refuseWrites(SessionWorld& session) {
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable);
}

// A lease that runs ends by itself.
void drift(SessionWorld& session) {
    session.world.mac.driftTarget(0, 100);
    EXPECT_TRUE(eventually([&] { return !session.command("status").session; }));
}

const Disturbance kDisturbances[] = {
    drift, refuseWrites, [](auto& session) { session.world.mac.clearFaults(); },
    [](auto& session) { session.world.power.failCall(2, PowerFault::refused); }};

// A reply without what differs from one run to the next.
std::string comparable(ControlReply reply) {
    if (reply.fanStatus) {
        reply.session = "S";
        reply.fanStatus->remainingSeconds = 0;
        reply.fanStatus->targets.resize(1, {0, 0});
        reply.fanStatus->targets[0].rpm = 0;
    }
    if (reply.power) {
        reply.power->startedAt.reset();
        reply.power->backup.reset();
    }
    return encodeJson(reply);
}

// The replies to a monitor's random requests while the machine is disturbed at random.
std::vector<std::string> replies(unsigned seed, bool withIds) {
    Dice dice(seed);
    SessionWorld session;
    session.world.environment.timings.fanTest = 60;
    session.world.power.settings = laptopSettings();
    std::vector<std::string> all;
    for (int step = 1; step <= 30; ++step) {
        if (dice.oneIn(3)) {
            kDisturbances[dice.upTo(std::size(kDisturbances) - 1)](session);
        }
        const std::string& request = kRequests[dice.upTo(std::size(kRequests) - 1)];
        const std::string id = R"(,"id":)" + (dice.oneIn(2) ? std::to_string(step) : "\"r\"");
        const std::string line = "{\"command\":" + request + (withIds ? id : "") + "}";
        ControlReply reply = session.ask(line);
        EXPECT_EQ(reply.id, requestIdIn(line));
        EXPECT_EQ(reply.code.has_value(), withIds) << line;
        EXPECT_TRUE(!reply.ended || (withIds && request.starts_with("\"status\""))) << line;
        if (const auto code = reply.knownCode()) {
            EXPECT_TRUE((adviceOf(*code) == Advice::none) == reply.ok ||
                        code == ResultCode::notReturned);
        }
        reply.id.reset();
        reply.code.reset();
        reply.ended.reset();
        all.push_back(request + " " + comparable(reply));
    }
    return all;
}

TEST(RequestIdTest, AddsItselfACodeAndAnEndingToRepliesAndNothingElse) {
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const auto with = replies(seed, true), without = replies(seed, false);
        for (std::size_t step = 0; step < with.size(); ++step) {
            ASSERT_EQ(with[step], without[step]) << "seed " << seed << ", step " << step;
        }
    }
}

// The page on the protocol shows the others.
TEST(RequestIdTest, TheCodeTellsWhatKindOfFailureItIs) {
    const std::tuple<const char*, std::string, Disturbance> cases[] = {
        {"failed", kProfile,
         [](auto& session) { session.world.mac.refuseWrites("F1Tg", simulator::kNotWritable); }},
        {"not-returned", kProfile, refuseWrites},
        {"occupied", kProfile, [](auto& session) { session.world.mac.otherTakesFan(1); }},
        {"unreadable", kProfile, [](auto& session) { session.world.mac.setUnreadable("F0Tg"); }},
        {"not-returned", R"("status")",
         [](auto& session) {
             session.profile("balanced");
             refuseWrites(session);
             session.command("auto");
         }},
        {"timeout", kProfile,
         [](auto& session) {
             session.world.environment.timings.confirmation = 0.01;
             session.world.mac.delayWrites("F0Md", 0.1);
         }},
        {"changed", kPlan, [](auto& session) { session.world.power.source = PowerSource::ac; }},
        {"ending", R"("turbo-disable")",
         [](auto& session) { session.world.power.stopAtCall(1, false); }},
    };
    for (const auto& [code, request, disturb] : cases) {
        SessionWorld session;
        session.world.power.settings = laptopSettings();
        disturb(session);
        const ControlReply reply = session.ask("{\"command\":" + request + ",\"id\":1}");
        EXPECT_EQ(reply.code, code) << request << reply.message;
        session.world.mac.clearFaults();
    }
    SessionWorld session(simulator::appleSiliconMac(2), true);
    EXPECT_EQ(session.ask("{\"command\":" + kProfile + ",\"id\":1}").code, "unsupported");
}

TEST(RequestIdTest, TheFirstStatusAfterALeaseTellsWhyItEnded) {
    const char* const lost = "风扇控制被改变或无法读取，已停止曲线";
    const std::tuple<const char*, const char*, Disturbance> cases[] = {
        {"time", "控制时间已到", nullptr},
        {"request", "已按请求结束控制", [](auto& session) { session.command("auto"); }},
        {"other-program", lost, drift},
        {"unreadable", lost, [](auto& session) { session.world.mac.setUnreadable("F0Tg"); }},
        {"sleep", "电脑曾经休眠，控制已结束", [](auto& session) { session.slept = 7200; }},
        {"stop", "辅助进程收到停止信号，控制已结束",
         [](auto& session) { session.world.stopFlag = true; }},
    };
    for (const auto& [reason, message, end] : cases) {
        constexpr double kNoWatchdog = 3600;
        SessionWorld session(simulator::intelMac(2), false, kNoWatchdog);
        const auto lease = end ? session.profile("balanced") : session.command("test-fans");
        ASSERT_TRUE(lease.ok) << lease.message;
        if (end) {
            end(session);
        }
        ASSERT_TRUE(eventually([&] { return !session.command("status").session; }));
        EXPECT_EQ(session.ask(R"({"command":"status","id":2})").ended,
                  (LeaseEnding{lease.session.value(), reason, message}));
        EXPECT_EQ(session.ask(R"({"command":"status","id":3})").ended, std::nullopt);
    }
}

}  // namespace
}  // namespace ferovane::testing
