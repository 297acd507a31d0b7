#include "tests/faults/fault_kinds.h"

#include <signal.h>

#include <cerrno>

namespace ferovane::testing {
namespace {

using simulator::kBadCommand;
using simulator::kForGood;
using simulator::kNotReadable;
using simulator::kOnce;

constexpr int kFew = 3;
constexpr int kIoNotPrivileged = static_cast<int>(0xE00002C1);
constexpr std::size_t kShortReply = 79;
constexpr std::uint32_t kOutsizedKey = 33;
constexpr double kBelowPatience = 1.9;  // seconds; a write is read back for two
constexpr double kBeyondPatience = 2.1;
constexpr double kWatchdogSees = 0.7;  // more than one of its rounds
constexpr double kHour = 3600;
constexpr const char* kShutdown = "{\"command\":\"shutdown\"}";
constexpr const char* kFanTest = "{\"command\":\"test-fans\"}";

bool atController(const Call& call, const Flow&) {
    return call.isController();
}
bool atWrite(const Call& call, const Flow&) {
    return call.kind == CallKind::keyWrite;
}
bool atKeyRead(const Call& call, const Flow&) {
    return call.kind == CallKind::keyRead;
}
bool atKeyInfo(const Call& call, const Flow&) {
    return call.kind == CallKind::keyInfo;
}
bool atFanControl(const Call& call, const Flow& flow) {
    return call.isController() && flow.controlsFans;
}
template <CallKind kind>
bool at(const Call& call, const Flow&) {
    return call.kind == kind;
}
bool atReadOrPoll(const Call& call, const Flow&) {
    return call.kind == CallKind::read || call.kind == CallKind::poll;
}
bool atReadOrWrite(const Call& call, const Flow&) {
    return call.kind == CallKind::read || call.kind == CallKind::write;
}
bool atDescriptor(const Call& call, const Flow& flow) {
    return atReadOrPoll(call, flow) || call.kind == CallKind::write;
}
bool atToolCall(const Call& call, const Flow&) {
    return call.kind == CallKind::outputFile || call.kind == CallKind::spawn ||
           call.kind == CallKind::threadStart;
}
bool atAny(const Call&, const Flow&) {
    return true;
}
bool atAnyOfOneShot(const Call&, const Flow& flow) {
    return !flow.isSession() && flow.controlsFans;
}
bool atAnyOfSession(const Call&, const Flow& flow) {
    return flow.isSession();
}
// Where another thread may run in between: not while a lock may be held.
bool betweenTurns(const Call& call, const Flow& flow) {
    return flow.isSession() && call.mayPause();
}

template <int error>
void failWith(FaultWorld& world, const Call&) {
    world.mishap.error = error;
}
int lastFan(FaultWorld& world) {
    return world.mac.fanCount() - 1;
}
template <int number>
void stopSignal(FaultWorld& world, const Call&) {
    world.sendSignal(number);
}
template <int number>
void stopSignalSeen(FaultWorld& world, const Call&) {
    world.sendSignal(number);
    world.letTimePass(kWatchdogSees);
}
template <bool ToolMishap::*... how>
void toolGoesWrong(FaultWorld& world, const Call&) {
    ToolMishap& mishap = world.tools.mishap.emplace();
    ((mishap.*how = true), ...);
}

const std::vector<FaultKind> kKinds{
    // The controller.
    {"call refused", atController,
     [](FaultWorld& w, const Call&) { w.mac.refuseCalls(kBadCommand, kOnce); }},
    {"three calls refused", atController,
     [](FaultWorld& w, const Call&) { w.mac.refuseCalls(kBadCommand, kFew); }},
    {"calls refused for good", atController,
     [](FaultWorld& w, const Call&) { w.mac.refuseCalls(kBadCommand, kForGood); }},
    {"no privilege for a write", atWrite,
     [](FaultWorld& w, const Call& c) {
         w.mac.refuseWrites(c.keyText(), kIoNotPrivileged, kOnce);
     }},
    {"key not writable for good", atWrite,
     [](FaultWorld& w, const Call& c) { w.mac.refuseWrites(c.keyText(), kBadCommand, kForGood); }},
    {"key not readable for good", atKeyRead,
     [](FaultWorld& w, const Call& c) { w.mac.refuseReads(c.keyText(), kNotReadable, kForGood); }},
    {"write ignored", atWrite,
     [](FaultWorld& w, const Call& c) { w.mac.ignoreWrites(c.keyText(), kOnce); }},
    {"three writes ignored", atWrite,
     [](FaultWorld& w, const Call& c) { w.mac.ignoreWrites(c.keyText(), kFew); }},
    {"key's writes ignored for good", atWrite,
     [](FaultWorld& w, const Call& c) { w.mac.ignoreWrites(c.keyText(), kForGood); }},
    {"settled after 1.9 s", atWrite,
     [](FaultWorld& w, const Call& c) { w.mac.delayWrites(c.keyText(), kBelowPatience, kOnce); },
     true},
    {"all settle after 1.9 s", atWrite,
     [](FaultWorld& w, const Call&) { w.mac.delayWrites("", kBelowPatience, kForGood); }, true},
    {"settled after 2.1 s", atWrite,
     [](FaultWorld& w, const Call& c) { w.mac.delayWrites(c.keyText(), kBeyondPatience, kOnce); },
     true},
    {"all settle after 2.1 s", atWrite,
     [](FaultWorld& w, const Call&) { w.mac.delayWrites("", kBeyondPatience, kForGood); }, true},
    {"garbage", atKeyRead,
     [](FaultWorld& w, const Call& c) { w.mac.readGarbage(c.keyText(), kOnce); }},
    {"three times garbage", atKeyRead,
     [](FaultWorld& w, const Call& c) { w.mac.readGarbage(c.keyText(), kFew); }},
    {"garbage for good", atKeyRead,
     [](FaultWorld& w, const Call& c) { w.mac.readGarbage(c.keyText(), kForGood); }},
    {"zeros", atKeyRead, [](FaultWorld& w, const Call& c) { w.mac.readZeros(c.keyText(), kOnce); }},
    {"frozen for good", atKeyRead,
     [](FaultWorld& w, const Call& c) { w.mac.freezeReads(c.keyText(), kForGood); }},
    {"reply of a wrong size", atController,
     [](FaultWorld& w, const Call&) { w.mac.wrongOutputSize(kShortReply, kOnce); }},
    {"replies of a wrong size for good", atController,
     [](FaultWorld& w, const Call&) { w.mac.wrongOutputSize(kShortReply, kForGood); }},
    {"key of a wrong size", atKeyInfo,
     [](FaultWorld& w, const Call& c) { w.mac.wrongKeySize(c.keyText(), kOutsizedKey, kOnce); }},
    {"key of a wrong size for good", atKeyInfo,
     [](FaultWorld& w, const Call& c) { w.mac.wrongKeySize(c.keyText(), 1, kForGood); }},
    {"no connection", at<CallKind::open>, failWith<EIO>},
    {"no answer", at<CallKind::probe>, [](FaultWorld& w, const Call&) { w.mishap.nothing = true; }},
    {"no answers for good", at<CallKind::probe>,
     [](FaultWorld& w, const Call&) { w.lasting[CallKind::probe].nothing = true; }},

    // Another program, and the world.
    {"fan taken by another program", atFanControl,
     [](FaultWorld& w, const Call&) {
         const bool free = !w.mac.fanManual(lastFan(w));
         w.mac.otherTakesFan(lastFan(w));
         if (free) {
             w.othersSince.insert(lastFan(w));
             w.spy.otherTook(lastFan(w));
         }
     }},
    {"fan released by another program", atFanControl,
     [](FaultWorld& w, const Call&) { w.mac.otherReleasesFan(0); }},
    {"target moved by another program", atFanControl,
     [](FaultWorld& w, const Call&) { w.mac.driftTarget(0, 250); }},
    {"unlock held by another program", atFanControl,
     [](FaultWorld& w, const Call&) { w.mac.otherHoldsUnlock(); }},
    {"fan vanished", atFanControl, [](FaultWorld& w, const Call&) { w.mac.vanishFan(lastFan(w)); }},
    {"machine slept", atFanControl, [](FaultWorld& w, const Call&) { w.mac.sleep(kHour); }},
    {"clock set back", at<CallKind::clock>,
     [](FaultWorld& w, const Call&) { w.mishap.clockShift = -kHour; }},
    {"clock ahead", at<CallKind::clock>,
     [](FaultWorld& w, const Call&) { w.mishap.clockShift = kHour; }},

    // The system.
    {"interrupted", atDescriptor, failWith<EINTR>},
    {"input or output failed", atDescriptor, failWith<EIO>},
    {"reader gone for good", at<CallKind::write>,
     [](FaultWorld& w, const Call&) { w.lasting[CallKind::write].error = EPIPE; }},
    {"nothing read or written", atDescriptor,
     [](FaultWorld& w, const Call&) { w.mishap.nothing = true; }},
    {"one byte", atReadOrWrite, [](FaultWorld& w, const Call&) { w.mishap.oneByte = true; }},
    {"one byte at a time for good", atReadOrWrite,
     [](FaultWorld& w, const Call& c) { w.lasting[c.kind].oneByte = true; }},
    {"no thread, file or process", atToolCall, failWith<EAGAIN>},
    {"tool's end not told", at<CallKind::toolWait>, failWith<ECHILD>},
    {"wait for a tool interrupted", at<CallKind::toolWait>, failWith<EINTR>},

    // The tools.
    {"tool fails", at<CallKind::spawn>, toolGoesWrong<&ToolMishap::fails, &ToolMishap::noEffect>},
    {"tools fail for good", at<CallKind::spawn>,
     [](FaultWorld& w, const Call&) { w.tools.lasting.fails = w.tools.lasting.noEffect = true; }},
    {"tool works and says it failed", at<CallKind::spawn>, toolGoesWrong<&ToolMishap::fails>},
    {"tool changes nothing and says it worked", at<CallKind::spawn>,
     toolGoesWrong<&ToolMishap::noEffect>},
    {"tool hangs", at<CallKind::spawn>, toolGoesWrong<&ToolMishap::hangs>},
    {"tool hangs until killed", at<CallKind::spawn>,
     toolGoesWrong<&ToolMishap::hangs, &ToolMishap::ignoresTerm>},
    {"tool prints garbage", at<CallKind::spawn>, toolGoesWrong<&ToolMishap::garbage>},
    {"tool prints nothing", at<CallKind::spawn>,
     [](FaultWorld& w, const Call&) { w.tools.mishap.emplace().prints = false; }},

    // What ends a lease.
    {"SIGTERM", atAny, stopSignal<SIGTERM>, false, true},
    {"SIGINT", atAny, stopSignal<SIGINT>, false, true},
    {"SIGHUP", atAny, stopSignal<SIGHUP>, false, true},
    {"SIGTERM, seen by the watchdog first", betweenTurns, stopSignalSeen<SIGTERM>, false, true},
    {"SIGINT, seen by the watchdog first", betweenTurns, stopSignalSeen<SIGINT>, false, true},
    {"SIGHUP, seen by the watchdog first", betweenTurns, stopSignalSeen<SIGHUP>, false, true},
    {"owner gone", atAny, [](FaultWorld& w, const Call&) { w.ownerAlive = false; }, false, true},
    {"owner gone, seen by the watchdog first", betweenTurns,
     [](FaultWorld& w, const Call&) {
         w.ownerAlive = false;
         w.letTimePass(kWatchdogSees);
     },
     false, true},
    {"stop file", atAnyOfOneShot, [](FaultWorld& w, const Call&) { w.stopFileAt = 0; }, false,
     true},
    {"end of input", atAnyOfSession, [](FaultWorld& w, const Call&) { w.closeInputNow(); }, false,
     true},
    {"end of input, seen first", betweenTurns,
     [](FaultWorld& w, const Call&) {
         w.closeInputNow();
         w.letTimePass(kWatchdogSees);
     },
     false, true},
    {"shutdown", atAnyOfSession, [](FaultWorld& w, const Call&) { w.sendNow(kShutdown); }, false,
     true},
    {"shutdown, seen first", betweenTurns,
     [](FaultWorld& w, const Call&) {
         w.sendNow(kShutdown);
         w.letTimePass(kWatchdogSees);
     },
     false, true},
    {"replacement", atAnyOfSession, [](FaultWorld& w, const Call&) { w.sendNow(kFanTest); }, false,
     true},
    {"replacement, seen first", betweenTurns,
     [](FaultWorld& w, const Call&) {
         w.sendNow(kFanTest);
         w.letTimePass(kWatchdogSees);
     },
     false, true},
};

}  // namespace

const std::vector<FaultKind>& faultKinds() {
    return kKinds;
}

}  // namespace ferovane::testing
