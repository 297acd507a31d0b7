#include <gtest/gtest.h>

#include "tests/helper/session_world.h"

namespace ferovane::testing {
namespace {

const std::string kSystemManaged = "风扇由系统管理";
const std::string kPlanLine =
    "{\"command\":\"power-optimize\",\"powerPlan\":{\"source\":\"battery\",\"scope\":"
    "\"current\",\"lowPower\":true,\"displayMinutes\":5,\"disableTurbo\":true}}";
constexpr double kLate = 0.1;  // seconds after which a write settles that is read back in time

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

TEST(SessionTest, ALeaseThatIsOverGoesOnReturningAFanThatWasLeftThoughNobodyAsks) {
    SessionWorld session;
    session.world.environment.timings.returnPause = 0.01;
    ASSERT_TRUE(session.command("test-fans").ok);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable, 4);
    EXPECT_TRUE(eventually([&] { return session.world.mac.allFansAutomatic(); }));
    EXPECT_TRUE(eventually([&] { return session.command("status").message == kSystemManaged; }));
    ASSERT_TRUE(session.profile("balanced").ok);
    session.world.mac.refuseWrites("F1Md", simulator::kNotWritable);
    ASSERT_FALSE(session.command("auto").ok);
    ASSERT_FALSE(session.profile("balanced").ok);
    session.world.mac.clearFaults();
    EXPECT_TRUE(eventually([&] { return session.world.mac.allFansAutomatic(); }))
        << "by the lease that could not begin";
    EXPECT_EQ(session.end(), "");
    EXPECT_EQ(session.world.guardianRecord, "held returned held returned ");
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
    const ControlReply applied = session.ask(kPlanLine);
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
    EXPECT_EQ(session.profile("automatic"), refusal);
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

TEST(SessionTest, EveryCauseOfStoppingHandsTheFansBack) {
    for (const std::string cause : {"input", "invalid shutdown", "reader"}) {
        SessionWorld session;
        ASSERT_TRUE(session.profile("balanced").ok);
        if (cause == "invalid shutdown") {
            EXPECT_EQ(session.ask("{\"command\":\"shutdown\",\"duration\":0}"),
                      (ControlReply{false, "无效控制时长"}));
            EXPECT_THROW(session.reply(), std::runtime_error) << "the session has ended";
        } else if (cause == "reader") {
            session.replies.closeEnd(0);
            session.tell("{\"command\":\"status\"}\n");
        }
        EXPECT_EQ(session.end(), cause == "reader" ? "辅助进程写入失败" : "");
        EXPECT_TRUE(session.world.mac.allFansAutomatic()) << cause;
        EXPECT_EQ(session.world.guardianRecord, "held returned ") << cause;
    }
}

TEST(SessionTest, ALeaseEndsThatNobodyGuardsAnyMore) {
    SessionWorld session;
    ASSERT_TRUE(session.profile("balanced").ok);
    session.world.guardianLost = true;
    EXPECT_TRUE(eventually([&] { return session.world.mac.allFansAutomatic(); }));
    session.end();
    EXPECT_EQ(session.world.errors.text(), "无人守护\n");
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

TEST(SessionTest, AHandBackIsFinishedBeforeTheProcessEnds) {
    for (const bool ofALease : {true, false}) {
        SessionWorld session;
        simulator::SimulatedMac& mac = session.world.mac;
        if (ofALease) {
            ASSERT_TRUE(session.profile("balanced").ok);
        } else {
            mac.otherTakesFan(1);
        }
        mac.delayWrites("", kLate);
        if (!ofALease) {
            session.tell("{\"command\":\"auto\"}\n");
            ASSERT_TRUE(eventually([&] { return !mac.writes().empty(); }));
        }
        session.world.ownerAlive = false;
        EXPECT_TRUE(session.endsItself());
        EXPECT_TRUE(mac.allFansAutomatic()) << ofALease;
    }
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

TEST(SessionTest, ATurboChangeThatIsCutInAndAPlanWhoseReplyNobodyGetsAreTakenBack) {
    SessionWorld session;
    session.world.power.settings = laptopSettings();
    session.world.power.stopAtCall(2, true);
    EXPECT_EQ(session.command("turbo-disable"), (ControlReply{false, "会话正在结束，操作已中止"}));
    EXPECT_EQ(session.world.power.turbo, 0);
    session.replies.closeEnd(0);
    session.tell(kPlanLine + "\n");
    EXPECT_EQ(session.end(), "辅助进程写入失败");
    EXPECT_EQ(session.world.power.settings, laptopSettings());
    EXPECT_EQ(session.world.power.turbo, 0);
    EXPECT_GT(session.world.power.writes.size(), 5U) << "it had been applied";
}

}  // namespace
}  // namespace ferovane::testing
