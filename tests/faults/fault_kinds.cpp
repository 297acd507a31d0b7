#include "tests/faults/fault_kinds.h"

#include <signal.h>

#include <cerrno>
#include <sstream>

#include "simulator/machine/faults.h"
#include "simulator/machine/machine.h"

namespace ferovane::testing {
namespace {

constexpr double kHour = 3600;
constexpr double kHalfAMinute = 30;

// ---- Which calls -------------------------------------------------------------------------------

template <CallKind... kinds>
bool at(const Call& call, const Flow&) {
    return ((call.kind == kinds) || ...);
}
constexpr auto atWrite = at<CallKind::keyWrite>;
constexpr auto atRead = at<CallKind::keyRead>;
constexpr auto atClock = at<CallKind::clock>;
constexpr auto atTransfer = at<CallKind::read, CallKind::write>;
constexpr auto atDescriptor = at<CallKind::read, CallKind::poll, CallKind::write>;
constexpr auto atTool = at<CallKind::tool>;
bool atAny(const Call&, const Flow&) {
    return true;
}
bool atController(const Call& call, const Flow&) {
    return call.isController();
}
bool atFans(const Call& call, const Flow& flow) {
    return call.isController() && flow.controlsFans;
}
bool inOneShotLease(const Call&, const Flow& flow) {
    return flow.lease;
}
bool inSession(const Call&, const Flow& flow) {
    return flow.isSession();
}
bool inFanSession(const Call& call, const Flow& flow) {
    return flow.isSession() && flow.controlsFans && !call.mayHoldLock();
}

// ---- What happens ------------------------------------------------------------------------------

template <int error>
void failWith(FaultWorld& world, const Call&) {
    world.mishap.error = error;
}
template <int number>
void stopSignal(FaultWorld& world, const Call&) {
    world.sendSignal(number);
}
void temperaturesGone(FaultWorld& world, const Call&) {
    for (const char* sensor : {"TC0C", "TC0P", "TC1C", "TCMb", "Tp01", "Tp05"}) {
        world.mac.refuseReads(sensor, simulator::kKeyNotFound);
    }
}
void controllerOut(FaultWorld& world, const Call&) {
    world.mac.refuseCalls(simulator::kBadCommand);
    world.mac.after(kOutageSeconds).clearFaults();
}

}  // namespace

void FaultKind::strike(FaultWorld& world, const Call& call) const {
    if (happens != nullptr) {
        return happens(world, call);
    }
    std::istringstream text{std::string(name)};
    std::vector<std::string> words;
    for (std::string word; text >> word; words.push_back(word)) {
        word = word == "key=@"      ? "key=" + call.keyText()
               : word == "fan=last" ? "fan=" + std::to_string(world.mac.fanCount() - 1)
                                    : word;
    }
    world.mac.machine().locked([&](simulator::World& machine) {
        simulator::Faults::befall(machine, simulator::Faults::parse(machine, words));
    });
}

const std::vector<FaultKind>& faultKinds() {
    using enum Harm;
    using W = FaultWorld;
    using C = const Call;

    static const std::vector<FaultKind> kinds{
        // The controller. A write is read back for two seconds.
        {"refuse-call code=0x82 times=1", once, atController},
        {"refuse-call code=0x82 times=3", lasting, atController},
        {"refuse-call code=0x82", lasting, atController},
        {"controller out for a while", outage, atController, controllerOut},
        {"refuse-write key=@ code=0x82 times=1", once, atWrite},
        {"refuse-write key=@ code=-536870207 times=1", once, atWrite},  // no privilege
        {"refuse-write key=@ code=0x82", lasting, atWrite},
        {"refuse-read key=@ code=0x85", lasting, atRead},
        {"ignore-write key=@ times=1", once, atWrite},
        {"ignore-write key=@ times=3", lasting, atWrite},
        {"ignore-write key=@", lasting, atWrite},
        {"delay-write key=@ seconds=1.9 times=1", none, atWrite},
        {"delay-write key=@ seconds=2.1 times=1", once, atWrite},
        {"delay-write seconds=1.9", late, atWrite},
        {"delay-write seconds=2.1", late, atWrite},
        {"garbage key=@ times=1", lieOnce, atRead},
        {"garbage key=@ times=3", lies, atRead},
        {"garbage key=@", lies, atRead},
        {"zero key=@ times=1", lieOnce, atRead},
        {"freeze key=@", lies, atRead},
        {"output-size size=79 times=1", once, atController},
        {"output-size size=79", lasting, atController},
        {"key-size key=@ size=33 times=1", once, at<CallKind::keyInfo>},
        {"key-size key=@ size=1", lasting, at<CallKind::keyInfo>},
        {"no connection", lasting, at<CallKind::open>, failWith<EIO>},
        {"no answer", fails, at<CallKind::probe>, [](W& w, C&) { w.mishap.nothing = true; }},
        {"no answers for good", fails, at<CallKind::probe>,
         [](W& w, C&) { w.lasting[CallKind::probe].nothing = true; }},
        {"temperatures gone", fails, atController, temperaturesGone},

        // Another program, and the world. No lease would set that target, so that none agrees by
        // chance.
        {"take-fan fan=last", rival, atFans},
        {"release-fan fan=0", rival, atFans},
        {"drift-target fan=0 rpm=250", rival, atFans},
        {"keep-target fan=0 rpm=9000 seconds=25", rival, atFans},
        {"hold-unlock value=1", rival, atFans},
        {"vanish-fan fan=last", lasting, atFans},
        {"sleep seconds=3600", fails, atFans},
        {"clock set back", fails, atClock, [](W& w, C&) { w.mishap.clockShift = -kHour; }},
        {"clock set back for good", fails, atClock,
         [](W& w, C&) { w.lasting[CallKind::clock].clockShift = -kHalfAMinute; }},
        {"clock ahead", fails, atClock, [](W& w, C&) { w.mishap.clockShift = kHour; }},

        // The system.
        {"interrupted", none, atDescriptor, failWith<EINTR>},
        {"input or output failed", fails, atDescriptor, failWith<EIO>},
        {"reader gone for good", fails, at<CallKind::write>,
         [](W& w, C&) { w.lasting[CallKind::write].error = EPIPE; }},
        {"nothing read or written", fails, atDescriptor, [](W& w, C&) { w.mishap.nothing = true; }},
        {"one byte", none, atTransfer, [](W& w, C&) { w.mishap.oneByte = true; }},
        {"one byte at a time for good", none, atTransfer,
         [](W& w, C& c) { w.lasting[c.kind].oneByte = true; }},
        {"no thread", fails, at<CallKind::threadStart>, failWith<EAGAIN>},

        // The tool that switches turbo.
        {"tool works and says it failed", fails, atTool, failWith<EIO>},
        {"tool without effect", fails, atTool, [](W& w, C&) { w.mishap.nothing = true; }},
        {"tools without effect for good", fails, atTool,
         [](W& w, C&) { w.lasting[CallKind::tool].nothing = true; }},
        {"tool hangs", fails, atTool,
         [](W& w, C&) { w.mishap = {.nothing = true, .hangs = true}; }},

        // What ends a lease.
        {"SIGTERM", cause, atAny, stopSignal<SIGTERM>},
        {"SIGINT", cause, atAny, stopSignal<SIGINT>},
        {"SIGHUP", cause, atAny, stopSignal<SIGHUP>},
        {"owner gone", cause, atAny, [](W& w, C&) { w.ownerAlive = false; }},
        {"stop file", cause, inOneShotLease, [](W& w, C&) { w.stopFileAt = 0; }},
        {"end of input", cause, inSession, [](W& w, C&) { w.closeInputNow(); }},
        {"shutdown", fails, inSession,
         [](W& w, C&) { w.sendNow("{\"command\":\"shutdown\"}", Ask::shutdown); }},
        {"replacement", fails, inFanSession,
         [](W& w, C&) { w.sendNow("{\"command\":\"test-fans\"}", Ask::lease); }},
    };
    return kinds;
}

}  // namespace ferovane::testing
