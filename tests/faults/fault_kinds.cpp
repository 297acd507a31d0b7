#include "tests/faults/fault_kinds.h"

#include <signal.h>

#include <cerrno>
#include <sstream>

#include "simulator/machine/faults.h"
#include "simulator/machine/machine.h"

namespace ferovane::testing {
namespace {

constexpr double kHour = 3600;
constexpr double kTwoMinutes = 120;
constexpr double kOutageSeconds = 6;

// ---- Which calls, and in which runs ------------------------------------------------------------

constexpr Calls kBefore = calls({CallKind::before});
constexpr Calls kAny = ~kBefore;
constexpr Calls kDescriptor = calls({CallKind::read, CallKind::poll, CallKind::write});
constexpr Calls kWithoutLock = kAny & ~calls({CallKind::clock, CallKind::probe});

bool fans(const Flow& flow) {
    return flow.controlsFans;
}
bool takesFans(const Flow& flow) {
    return flow.controlsFans && !flow.returnsAll;
}
bool oneShotLease(const Flow& flow) {
    return flow.lease;
}
bool takesAtOnce(const Flow& flow) {
    return flow.lease && flow.turboDisabled < 0;
}
bool session(const Flow& flow) {
    return flow.isSession();
}
bool curve(const Flow& flow) {
    return takesFans(flow) && !flow.cooling;
}
bool byModeKey(const Flow& flow) {
    return takesFans(flow) && flow.machine->modeKeys;
}
bool byMask(const Flow& flow) {
    return takesFans(flow) && !flow.machine->modeKeys && !flow.machine->appleSilicon;
}
bool untilUnlocked(const Flow& flow) {
    return byModeKey(flow) && flow.machine->appleSilicon && flow.machine->canBeHeld &&
           flow.machine->unlockKey;
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
void nothing(FaultWorld& world, const Call&) {
    world.mishap.nothing = true;
}
void nothingForGood(FaultWorld& world, const Call& call) {
    world.lasting[call.kind].nothing = true;
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
void ownerGone(FaultWorld& world, const Call&) {
    world.ownerLeavesAt = 0;
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
    using enum CallKind;
    using enum Harm;
    using W = FaultWorld;
    using C = const Call;
    constexpr Calls kWrite = calls({keyWrite});
    constexpr Calls kRead = calls({keyRead});
    constexpr Calls kInfo = calls({keyInfo});

    static const std::vector<FaultKind> kinds{
        // The controller. A write is read back for two seconds.
        {"refuse-call code=0x82 times=1", hit, kController},
        {"refuse-call code=0x82 times=3", hit, kController},
        {"refuse-call code=0x82", hit, kController},
        {"controller out for a while", hit, kController, nullptr, controllerOut},
        {"refuse-write key=@ code=0x82 times=1", hit, kWrite},
        {"refuse-write key=@ code=-536870207 times=1", hit, kWrite},  // no privilege
        {"refuse-write key=@ code=0x82", hit, kWrite},
        {"refuse-read key=@ code=0x85 times=3", hit, kRead},
        {"refuse-read key=@ code=0x85", hit, kRead},
        {"ignore-write key=@ times=1", hit, kWrite},
        {"ignore-write key=@ times=3", hit, kWrite},
        {"ignore-write key=@", hit, kWrite},
        {"delay-write key=@ seconds=1.9 times=1", none, kWrite},
        {"delay-write key=@ seconds=2.1 times=1", late, kWrite},
        {"delay-write seconds=1.9", late, kWrite},
        {"delay-write seconds=2.1", late, kWrite},
        {"garbage key=@ times=1", lies, kRead},
        {"garbage key=@ times=3", lies, kRead},
        {"garbage key=@", lies, kRead},
        {"zero key=@ times=1", lies, kRead},
        {"freeze key=@", lies, kRead},
        {"output-size size=79 times=1", hit, kController},
        {"output-size size=79", hit, kController},
        {"key-size key=@ size=33 times=1", hit, kInfo},
        {"key-size key=@ size=1", hit, kInfo},
        {"no connection", hit, calls({open}), nullptr, failWith<EIO>},
        {"no answer", fails, calls({probe}), nullptr, nothing},
        {"no answers for good", fails, calls({probe}), nullptr, nothingForGood},
        {"temperatures gone", fails, kController, nullptr, temperaturesGone},

        // Another program, and the world. No lease would set that target, so that none agrees by
        // chance.
        {"take-fan fan=last", rival, kController, fans},
        {"release-fan fan=0", rival, kController, fans},
        {"drift-target fan=0 rpm=250", rival, kController, fans},
        {"keep-target fan=0 rpm=9000 seconds=25", rival, kController, fans},
        {"hold-unlock value=1", rival, kController, fans},
        {"vanish-fan fan=last", hit, kController, fans},
        {"sleep seconds=3600", time, kController, fans},
        {"clock set back", time, calls({clock}), fans,
         [](W& w, C&) { w.mishap.clockShift = -kHour; }},
        {"clock set back for good", time, calls({clock}), fans,
         [](W& w, C&) { w.lasting[clock].clockShift = -kTwoMinutes; }},
        {"clock ahead", time, calls({clock}), fans, [](W& w, C&) { w.mishap.clockShift = kHour; }},

        // The system.
        {"interrupted", none, kDescriptor, nullptr, failWith<EINTR>},
        {"input or output failed", channel, kDescriptor, nullptr, failWith<EIO>},
        {"reader gone for good", channel, calls({write}), nullptr,
         [](W& w, C&) { w.lasting[write].error = EPIPE; }},
        {"nothing read or written", channel, kDescriptor, nullptr, nothing},
        {"one byte", none, calls({read, write}), nullptr,
         [](W& w, C&) { w.mishap.oneByte = true; }},
        {"one byte at a time for good", none, calls({read, write}), nullptr,
         [](W& w, C& c) { w.lasting[c.kind].oneByte = true; }},
        {"no thread", fails, calls({threadStart}), nullptr, failWith<EAGAIN>},

        // The tool that switches turbo.
        {"tool works and says it failed", fails, calls({tool}), nullptr, failWith<EIO>},
        {"tool without effect", fails, calls({tool}), nullptr, nothing},
        {"tools without effect for good", fails, calls({tool}), nullptr, nothingForGood},
        {"tool hangs", fails, calls({tool}), nullptr,
         [](W& w, C&) { w.mishap = {.nothing = true, .hangs = true}; }},

        // What ends a lease.
        {"SIGTERM", cause, kAny, nullptr, stopSignal<SIGTERM>},
        {"SIGINT", cause, kAny, nullptr, stopSignal<SIGINT>},
        {"SIGHUP", cause, kAny, nullptr, stopSignal<SIGHUP>},
        {"owner gone", cause, kAny, nullptr, ownerGone},
        {"stop file", cause, kAny, oneShotLease, [](W& w, C&) { w.stopFileAt = 0; }},
        {"end of input", cause, kAny, session, [](W& w, C&) { w.closeInputNow(); }},
        {"shutdown", fails, kAny, session,
         [](W& w, C&) { w.sendNow("{\"command\":\"shutdown\"}", Ask::shutdown); }},
        {"replacement", fails, kWithoutLock, session,
         [](W& w, C&) { w.sendNow("{\"command\":\"test-fans\"}", Ask::lease); }},

        // How the machine and the caller are found.
        {"take-fan fan=last", unfit, kBefore, fans},
        {"take-fan fan=0", unfit, kBefore, fans},
        {"hold-unlock value=1", unfit, kBefore, untilUnlocked},
        {"other-write key=F0Md value=2", unfit, kBefore, byModeKey},
        {"other-write key=F0Md value=3", none, kBefore, untilUnlocked},
        {"a mask for a fan that there is not", unfit, kBefore, byMask,
         [](W& w, C&) { w.mac.otherWrites("FS! ", 1 << w.mac.fanCount()); }},
        {"refuse-read key=F0Md code=0x85", unfit, kBefore, untilUnlocked},
        {"refuse-read key=F0Tg code=0x85", unfit, kBefore, takesFans},
        {"refuse-read key=F0Mx code=0x85", unfit, kBefore, takesFans},
        {"other-write key=F0Tg value=9000", unfit, kBefore, takesAtOnce},
        {"other-write key=F0Mx value=1900", unfit, kBefore, takesFans},
        {"other-write key=F0Mn value=0", unfit, kBefore, curve},
        {"not root", denied, kBefore, fans, [](W& w, C&) { w.environment.effectiveUser = 501; }},
        {"another user's session", denied, kBefore, session,
         [](W& w, C&) { w.environment.realUser = 502; }},
        {"a caller that is gone", denied, kBefore, takesFans, ownerGone},
    };
    return kinds;
}

}  // namespace ferovane::testing
