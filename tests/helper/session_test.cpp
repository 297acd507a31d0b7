#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#include "tests/helper/full_pipe.h"
#include "tests/helper/session_world.h"

namespace ferovane::testing {
namespace {

const std::string kConfirmed = "控制已确认生效";
const std::string kSystemManaged = "风扇由系统管理";
const std::string kPlan =
    "{\"command\":\"power-optimize\",\"powerPlan\":{\"source\":\"battery\",\"scope\":"
    "\"current\",\"lowPower\":true,\"displayMinutes\":5,\"disableTurbo\":true}}";
constexpr double kLate = 0.1;  // seconds after which a write settles that is read back in time

TEST(SessionTest, StartsOnlyForItsOwner) {
    struct Case {
        std::uint32_t effective, real;
        std::string pid, uid;
    };
    const std::vector<Case> refused{
        {501, 501, "4711", "501"}, {0, 0, "4711", "501"},
        {0, 501, "4712", "501"},   {0, 501, "4711", "502"},
        {0, 501, "4711", ""},      {0, 501, "4711 ", "501"},
        {0, 501, "x", "501"},      {0, 501, "4711", "5011111111111"},
    };
    for (const Case& c : refused) {
        HelperWorld world(simulator::intelMac(2));
        world.environment.effectiveUser = c.effective;
        world.environment.realUser = c.real;
        EXPECT_EQ(world.run({"serve", c.pid, c.uid}), 1);
        EXPECT_EQ(world.errors.text(), "原生授权会话身份验证失败\n");
        EXPECT_EQ(world.mac.calls().total(), 0U);
    }
}

TEST(SessionTest, HoldsAProfileUntilItIsHandedBack) {
    SessionWorld session;
    const ControlReply idle{.ok = true, .message = kSystemManaged, .turbo = 0};
    EXPECT_EQ(session.command("hello"), idle);
    EXPECT_EQ(session.world.mac.writes(), "");
    const ControlReply quiet = session.profile("quiet");
    ASSERT_TRUE(quiet.ok && quiet.session && quiet.fanStatus) << quiet.message;
    EXPECT_EQ(quiet.message, kConfirmed);
    EXPECT_EQ(quiet.profile, "quiet");
    EXPECT_EQ(quiet.label, "静音");
    EXPECT_EQ(quiet.turbo, 1);
    EXPECT_EQ(quiet.fanStatus->targets.size(), 2U);
    EXPECT_FALSE(quiet.fanStatus->protectionActive);
    EXPECT_NEAR(quiet.fanStatus->remainingSeconds, 1800, 10);
    EXPECT_TRUE(session.world.mac.fanManual(0) && session.world.mac.fanManual(1));
    const ControlReply status = session.command("status");
    EXPECT_EQ(status.session, quiet.session);
    EXPECT_EQ(status.message, kConfirmed);
    EXPECT_EQ(session.profile("automatic"),
              (ControlReply{.ok = true, .message = kConfirmed, .turbo = 1}))
        << "automatic keeps the turbo choice";
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
    EXPECT_EQ(session.world.power.writes, std::vector<std::string>{"turbo=1"});
}

TEST(SessionTest, ANewLeaseReplacesTheOldOneAfterItHasEnded) {
    SessionWorld session;
    session.world.environment.timings.fanTest = 5;
    const ControlReply test = session.ask("{\"command\":\"test-fans\",\"label\":\"试转\"}");
    ASSERT_TRUE(test.ok) << test.message;
    EXPECT_EQ(test.label, "试转");
    const ControlReply curve = session.ask(
        "{\"command\":\"profile\",\"profile\":\"custom\",\"label\":\"x\",\"curve\":{\"points\":"
        "[{\"temperature\":30,\"percent\":50},{\"temperature\":90,\"percent\":100}],"
        "\"sensor\":\"CPU\"}}");
    ASSERT_TRUE(curve.ok) << curve.message;
    EXPECT_EQ(curve.label, "独立风扇策略");
    EXPECT_NE(curve.session, test.session);
    EXPECT_EQ(session.command("shutdown").message, kSystemManaged);
    EXPECT_EQ(session.end(), "");
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
    EXPECT_EQ(session.world.guardianRecord, "held returned held returned ");
    EXPECT_TRUE(session.world.power.writes.empty()) << "neither touches turbo";
}

// In a process of its own, of a user who may start no thread more.
int sessionWithoutAThreadForItsLease() {
    const uid_t nobodyElse = 1'000'000 + static_cast<uid_t>(::getpid());
    constexpr rlim_t kThreads = 3;  // this one, the session's and its watchdog's
    ::alarm(20);
    if (::setuid(nobodyElse) != 0) {
        return 1;
    }
    SessionWorld session;
    rlimit before{};
    if (!session.command("hello").ok || ::getrlimit(RLIMIT_NPROC, &before) != 0) {
        return 2;
    }
    const rlimit noMore{kThreads, before.rlim_max};
    ::setrlimit(RLIMIT_NPROC, &noMore);
    const bool refused = session.profile("balanced") == ControlReply{false, "无法启动风扇控制线程"};
    return !refused ? 3 : session.command("shutdown").ok ? 0 : 4;
}

TEST(SessionTest, ALeaseThatGetsNoThreadIsRefusedAndNobodyWaitsForItsEnd) {
#ifndef __linux__
    GTEST_SKIP() << "only here does the limit of processes count threads";
#endif
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(sessionWithoutAThreadForItsLease());
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
}

TEST(SessionTest, ALeaseThatFailsMakesGoodOneErrorOfItsHandBack) {
    SessionWorld session;
    ASSERT_TRUE(session.profile("balanced").ok);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable, simulator::kOnce);
    session.world.mac.driftTarget(0, 100);
    EXPECT_TRUE(eventually([&] { return session.command("status").message == kSystemManaged; }));
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
}

TEST(SessionTest, NothingIsWaitedForWithoutEndAndWhatComesTooLateIsEnded) {
    SessionWorld session;
    ASSERT_TRUE(session.profile("balanced").ok);
    session.world.environment.timings.leaseEnd = kLate / 5;
    session.world.mac.delayWrites("F0Md", kLate);
    EXPECT_EQ(session.profile("performance"),
              (ControlReply{false, "等待风扇恢复自动超时，未开始下一操作"}));
    session.world.environment.timings.leaseEnd = 10;
    ASSERT_TRUE(session.command("auto").ok);

    session.world.environment.timings.confirmation = kLate / 5;
    const std::size_t before = session.world.mac.writes().size();
    EXPECT_EQ(session.profile("balanced"),
              (ControlReply{false, "控制确认超时，已请求恢复系统自动"}));
    EXPECT_TRUE(eventually([&] {
        const std::string writes = session.world.mac.writes();
        const std::size_t taken = writes.rfind("F1Md=1");
        return taken > before && writes.rfind("F1Md=0") > taken;
    }));
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
}

TEST(SessionTest, AFanTestEndsByItselfAndReturnsAFanThatWasLeftThoughNobodyAsks) {
    SessionWorld session;
    session.world.environment.timings.returnPause = 0.01;
    ASSERT_TRUE(session.command("test-fans").ok);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable, 4);
    EXPECT_TRUE(eventually([&] { return session.world.mac.allFansAutomatic(); }));
    EXPECT_TRUE(eventually([&] { return session.command("status").message == kSystemManaged; }));
    EXPECT_EQ(session.end(), "");
    EXPECT_EQ(session.world.guardianRecord, "held returned ");
    EXPECT_EQ(session.world.errors.text().rfind("恢复自动风扇失败：SMC F1Md", 0), 0U);
}

TEST(SessionTest, TakesTurboBackWhenTheLeaseCannotStart) {
    SessionWorld session;
    session.world.mac.otherTakesFan(1);
    const ControlReply reply = session.profile("eco");
    EXPECT_EQ(reply, (ControlReply{false, "请先恢复系统自动风扇并退出其他控制程序"}));
    EXPECT_TRUE(session.world.mac.fanManual(1)) << "the other program's fan is left alone";
    session.end();
    EXPECT_EQ(session.world.power.writes, (std::vector<std::string>{"turbo=1", "turbo=0"}));
    EXPECT_EQ(session.world.mac.writes(), "");
}

TEST(SessionTest, LeavesAFanAloneThatIsTakenAfterTheChecksUntilAskedToReturnIt) {
    SessionWorld session;
    session.world.mac.atWrite(1).otherTakesFan(1);
    EXPECT_EQ(session.profile("balanced"),
              (ControlReply{false, "风扇未处于系统自动，请先退出其他风扇控制程序"}));
    EXPECT_TRUE(session.world.mac.fanManual(1));
    EXPECT_EQ(session.world.mac.writes().find("F1"), std::string::npos);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable, simulator::kOnce);
    EXPECT_FALSE(session.command("auto").ok);
    EXPECT_EQ(session.command("auto").message, kSystemManaged);
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
}

TEST(SessionTest, SaysSoWhileAFanCouldNotBeHandedBackAndANewLeaseFirstMakesThatGood) {
    SessionWorld session;
    constexpr int kFewTries = 8;  // a lease that went on trying would get beyond them
    session.world.power.settings = laptopSettings();
    ASSERT_TRUE(session.profile("balanced").ok);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable, kFewTries);
    const std::string failure = "恢复自动风扇失败：SMC F1Md 写入失败（134）；此机型可能不支持控制";
    EXPECT_EQ(session.command("auto"), (ControlReply{false, failure}));
    EXPECT_EQ(session.command("status"), (ControlReply{false, failure + "（风扇 2）"}));
    const ControlReply applied = session.ask(kPlan);
    EXPECT_EQ(applied.message, "优化设置已确认生效");
    EXPECT_TRUE(applied.ok && applied.power && applied.power->backup) << "it costs no backup";
    session.world.mac.clearFaults();
    EXPECT_EQ(session.command("auto").message, kSystemManaged);
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
    ASSERT_TRUE(session.profile("balanced").ok);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable);
    ASSERT_FALSE(session.command("auto").ok);
    session.world.mac.clearFaults();
    const ControlReply reply = session.profile("performance");
    EXPECT_TRUE(reply.ok && reply.fanStatus) << reply.message;
    EXPECT_EQ(session.command("shutdown").message, kSystemManaged);
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
    EXPECT_EQ(session.end(), "");
    EXPECT_EQ(session.world.guardianRecord, "held returned held returned held returned ");
}

TEST(SessionTest, NothingButTheHandBackClearsAFanThatIsStillHeld) {
    const std::string failure = "恢复自动风扇失败：";
    const auto tellsOfTheFan = [&](const ControlReply& reply) {
        return !reply.ok && reply.message.rfind(failure, 0) == 0;
    };
    const std::vector<std::pair<std::string, std::function<void(SessionWorld&)>>> attempts{
        {"a profile that is refused",
         [](SessionWorld& session) { EXPECT_FALSE(session.profile("balanced").ok); }},
        {"returning the fans that are listed",
         [](SessionWorld& session) {
             session.world.mac.vanishFan(1);
             EXPECT_FALSE(session.command("auto").ok);
         }},
        {"a profile of the fans that are listed",
         [](SessionWorld& session) {
             session.world.mac.vanishFan(1);
             EXPECT_FALSE(session.profile("balanced").ok);
             EXPECT_FALSE(session.world.mac.fanManual(0));
         }},
    };
    for (const auto& [name, attempt] : attempts) {
        SessionWorld session;
        ASSERT_TRUE(session.profile("balanced").ok);
        session.world.mac.refuseWrites("F1Md", simulator::kNotWritable);
        ASSERT_FALSE(session.command("auto").ok);
        attempt(session);
        const ControlReply status = session.command("status");
        EXPECT_TRUE(tellsOfTheFan(status)) << name << status.message;
        session.end();
        EXPECT_EQ(session.endedWith, 0) << "the process ends, so that its guardian acts: " << name;
        EXPECT_TRUE(session.world.errors.text().ends_with("\n恢复自动风扇失败\n")) << name;
    }
}

TEST(SessionTest, OnAppleSiliconOnlyFansAreControlled) {
    SessionWorld session(simulator::appleSiliconMac(2), true);
    const ControlReply refusal{
        false, "Apple Silicon 当前仅支持独立风扇控制，不支持 Intel 睿频或电源设置控制"};
    EXPECT_EQ(session.command("turbo-disable"), refusal);
    for (const char* word : {"automatic", "eco", "performance", "balanced", "quiet"}) {
        EXPECT_EQ(session.profile(word), refusal);
    }
    ASSERT_TRUE(session.command("test-fans").ok);
    EXPECT_EQ(session.command("auto").message, kSystemManaged);
    EXPECT_TRUE(session.world.mac.allFansAutomatic());
    session.world.mac.otherHoldsUnlock();
    EXPECT_EQ(session.command("test-fans"),
              (ControlReply{false, "风扇控制交接已被占用，请先恢复系统自动"}));
    EXPECT_EQ(session.command("status").message, kSystemManaged);
    EXPECT_EQ(session.end(), "");
    EXPECT_EQ(session.world.guardianRecord, "held returned held returned ");
}

TEST(SessionTest, WhatIsNotUnderstoodOrFailsIsAnsweredAndTheSessionGoesOn) {
    SessionWorld session;
    for (const char* line : {"", "[]", "\xff", "{\"command\":1}", "{}",
                             "{\"command\":\"status\",\"command\":\"status\"}",
                             "{\"command\":\"status\",\"duration\":1e999}"}) {
        const ControlReply reply = session.ask(line);
        EXPECT_TRUE(!reply.ok && !reply.message.empty()) << line;
    }
    EXPECT_EQ(session.command("dance"), (ControlReply{false, "未知控制命令"}));
    EXPECT_EQ(session.command("power-optimize"), (ControlReply{false, "缺少优化方案"}));
    session.world.power.failCall(2, PowerFault::refused, [] { throw std::bad_alloc(); });
    EXPECT_EQ(session.command("turbo-disable"), (ControlReply{false, "内存不足，操作未完成"}));
    session.tell("{\"command\":\"hello\"}\n{\"command\":\"status\"}\n{\"comm");
    EXPECT_TRUE(session.reply().ok);
    EXPECT_TRUE(session.reply().ok);
    EXPECT_EQ(session.end(), "") << "half a line and the end of input end it quietly";
}

TEST(SessionTest, EveryCauseOfStoppingHandsTheFansBack) {
    for (const std::string cause :
         {"input", "owner", "signal", "shutdown", "invalid shutdown", "reader", "long line"}) {
        SessionWorld session;
        ASSERT_TRUE(session.profile("balanced").ok);
        session.world.ownerAlive = cause != "owner";
        session.world.stopFlag = cause == "signal";
        if (cause == "owner" || cause == "signal") {
            EXPECT_TRUE(session.endsItself());
        } else if (cause == "shutdown") {
            EXPECT_TRUE(session.command("shutdown").ok);
        } else if (cause == "invalid shutdown") {
            EXPECT_EQ(session.ask("{\"command\":\"shutdown\",\"duration\":0}"),
                      (ControlReply{false, "无效控制时长"}));
            EXPECT_THROW(session.reply(), std::runtime_error) << "the session has ended";
        } else if (cause == "reader") {
            session.replies.closeEnd(0);
            session.tell("{\"command\":\"status\"}\n");
        } else if (cause == "long line") {
            session.tell(std::string(20000, 'x'));
            EXPECT_THROW(session.reply(), std::runtime_error);
        }
        EXPECT_EQ(session.end(), cause == "reader"      ? "辅助进程写入失败"
                                 : cause == "long line" ? "控制消息过长"
                                                        : "");
        EXPECT_TRUE(session.world.mac.allFansAutomatic()) << cause;
        EXPECT_EQ(session.world.guardianRecord, "held returned ") << cause;
    }
}

TEST(SessionTest, ALeaseSeesByItselfThatItIsToStop) {
    constexpr double kNoWatchdog = 3600;  // seconds until it looks for the first time
    for (const bool signal : {false, true}) {
        SessionWorld session(simulator::intelMac(2), false, kNoWatchdog);
        ASSERT_TRUE(session.profile("balanced").ok);
        session.world.stopFlag = signal;
        session.world.ownerAlive = signal;
        EXPECT_TRUE(eventually([&] { return session.world.mac.allFansAutomatic(); })) << signal;
    }
}

TEST(SessionTest, ServesNoRequestOfAnOwnerWhoIsGone) {
    SessionWorld session;
    ASSERT_TRUE(session.command("hello").ok);
    session.world.ownerAlive = false;
    session.tell("{\"command\":\"turbo-disable\"}\n");
    EXPECT_THROW(session.reply(), std::runtime_error);
    session.end();
    EXPECT_TRUE(session.world.power.writes.empty());
}

TEST(SessionTest, BeginsNothingMoreOnceItEnds) {
    SessionWorld session;
    ASSERT_TRUE(session.command("hello").ok);
    session.world.ownerAlive = false;
    ASSERT_TRUE(session.endsItself());
    session.world.ownerAlive = true;  // one look may fail where the next does not
    EXPECT_EQ(session.profile("balanced"), (ControlReply{false, "会话正在结束，未开始新操作"}));
    EXPECT_EQ(session.world.mac.writes(), "");
}

TEST(SessionTest, AHandBackWithoutALeaseIsFinishedBeforeTheProcessEnds) {
    SessionWorld session;
    simulator::SimulatedMac& mac = session.world.mac;
    mac.otherTakesFan(0);
    mac.otherTakesFan(1);
    mac.delayWrites("", kLate);
    session.tell("{\"command\":\"auto\"}\n");
    ASSERT_TRUE(eventually([&] { return !mac.writes().empty(); }));
    session.world.ownerAlive = false;
    EXPECT_TRUE(session.endsItself());
    EXPECT_TRUE(mac.allFansAutomatic());
}

TEST(SessionTest, AReaderThatHasStoppedKeepsNeitherAGoneOwnerNorAHangUpFromTheFans) {
    for (const bool hangsUp : {true, false}) {
        SessionWorld session;
        session.world.environment.timings.hangUp = hangsUp ? 0.02 : 60;
        session.world.environment.timings.fanTest = 60;
        ASSERT_TRUE(session.profile("balanced").ok);
        fillPipe(session.replies.ends[1]);
        session.tell("{\"command\":\"test-fans\"}\n");
        simulator::SimulatedMac& mac = session.world.mac;
        EXPECT_TRUE(eventually([&] { return mac.fanTarget(1) == mac.fanMaximum(1); }));
        hangsUp ? session.requests.closeEnd(1) : void(session.world.ownerAlive = false);
        EXPECT_TRUE(session.endsItself());
        EXPECT_TRUE(mac.allFansAutomatic());
        session.replies.closeEnd(0);
    }
}

TEST(SessionTest, PowerPlansAreAppliedAndUndone) {
    SessionWorld session;
    FakePowerAccess& power = session.world.power;
    power.settings = laptopSettings();
    const ControlReply applied = session.ask(kPlan);
    EXPECT_EQ(applied.message, "优化设置已确认生效");
    ASSERT_TRUE(applied.power && applied.power->backup);
    EXPECT_EQ(session.ask(kPlan).message, "所选设置已满足");

    const std::string restore =
        "{\"command\":\"power-restore\",\"powerBackup\":" + encodeJson(*applied.power->backup) +
        "}";
    const ControlReply restored = session.ask(restore);
    EXPECT_EQ(restored.message, "原设置已恢复");
    EXPECT_TRUE(restored.power && restored.power->changed);
    EXPECT_EQ(session.ask(kPlan).message, "优化设置已确认生效");
    power.settings.profiles[PowerSource::battery][PowerSetting::displaySleep] = 7;
    EXPECT_EQ(session.ask(restore).message, "恢复已结束；外部更改保留");
    session.end();
    EXPECT_EQ(power.settings.value(PowerSetting::displaySleep, PowerSource::battery), 7);
}

TEST(SessionTest, ATurboChangeThatIsCutInAndAPlanWhoseReplyNobodyGetsAreTakenBack) {
    SessionWorld session;
    session.world.power.settings = laptopSettings();
    session.world.power.stopAtCall(2, true);
    EXPECT_EQ(session.command("turbo-disable"), (ControlReply{false, "会话正在结束，操作已中止"}));
    EXPECT_EQ(session.world.power.turbo, 0);
    session.replies.closeEnd(0);
    session.tell(kPlan + "\n");
    EXPECT_EQ(session.end(), "辅助进程写入失败");
    EXPECT_EQ(session.world.power.settings, laptopSettings());
    EXPECT_EQ(session.world.power.turbo, 0);
    EXPECT_GT(session.world.power.writes.size(), 5U) << "it had been applied";
}

}  // namespace
}  // namespace ferovane::testing
