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

constexpr auto kFans = [](const Flow& flow) { return flow.controlsFans; };
constexpr auto kTakesFans = [](const Flow& flow) { return kFans(flow) && !flow.returnsAll; };
constexpr auto kOneShotLease = [](const Flow& flow) { return flow.lease; };
constexpr auto kTakesAtOnce = [](const Flow& flow) { return flow.lease && !flow.usesTools(); };
constexpr auto kInSession = [](const Flow& flow) { return flow.isSession(); };
constexpr auto kFollowsCurve = [](const Flow& flow) { return kTakesFans(flow) && !flow.cooling; };
constexpr auto kByModeKey = [](const Flow& flow) {
    return kTakesFans(flow) && flow.machine->modeKeys;
};
constexpr auto kByMask = [](const Flow& flow) {
    return kTakesFans(flow) && !flow.machine->modeKeys && !flow.machine->appleSilicon;
};
constexpr auto kByModeKeyOnly = [](const Flow& flow) {
    return kByModeKey(flow) && flow.machine->canBeHeld && flow.machine->unlockKey;
};

// ---- What happens ------------------------------------------------------------------------------

using W = FaultWorld;
using C = const Call;

template <int error>
constexpr auto kFailWith = [](W& w, C&) { w.mishap.error = error; };
template <int number>
constexpr auto kStopSignal = [](W& w, C&) { w.sendSignal(number); };
constexpr auto kNothing = [](W& w, C&) { w.mishap.nothing = true; };
constexpr auto kNothingForGood = [](W& w, C& call) { w.lasting[call.kind].nothing = true; };
constexpr auto kOwnerGone = [](W& w, C&) { w.ownerLeavesAt = 0; };
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
    using enum CallKind;
    using enum Harm;
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
        {"no connection", hit, calls({open}), nullptr, kFailWith<EIO>},
        {"no answer", fails, calls({probe}), nullptr, kNothing},
        {"no answers for good", fails, calls({probe}), nullptr, kNothingForGood},
        {"temperatures gone", fails, kController, nullptr, temperaturesGone},

        // Another program, and the world. No lease would set that target, so that none agrees by
        // chance.
        {"take-fan fan=last", rival, kController, kFans},
        {"release-fan fan=0", rival, kController, kFans},
        {"drift-target fan=0 rpm=250", rival, kController, kFans},
        {"keep-target fan=0 rpm=9000 seconds=25", rival, kController, kFans},
        {"hold-unlock value=1", rival, kController, kFans},
        {"vanish-fan fan=last", hit, kController, kFans},
        {"sleep seconds=3600", time, kController, kFans},
        {"clock set back", time, calls({clock}), kFans,
         [](W& w, C&) { w.mishap.clockShift = -kHour; }},
        {"clock set back for good", time, calls({clock}), kFans,
         [](W& w, C&) { w.lasting[clock].clockShift = -kTwoMinutes; }},
        {"clock ahead", time, calls({clock}), kFans, [](W& w, C&) { w.mishap.clockShift = kHour; }},

        // The system.
        {"interrupted", none, kDescriptor, nullptr, kFailWith<EINTR>},
        {"input or output failed", channel, kDescriptor, nullptr, kFailWith<EIO>},
        {"reader gone for good", channel, calls({write}), nullptr,
         [](W& w, C&) { w.lasting[write].error = EPIPE; }},
        {"nothing read or written", channel, kDescriptor, nullptr, kNothing},
        {"one byte", none, calls({read, write}), nullptr,
         [](W& w, C&) { w.mishap.oneByte = true; }},
        {"one byte at a time for good", none, calls({read, write}), nullptr,
         [](W& w, C& c) { w.lasting[c.kind].oneByte = true; }},
        {"no thread", fails, calls({threadStart}), nullptr, kFailWith<EAGAIN>},

        // The tool that switches turbo.
        {"tool works and says it failed", fails, calls({tool}), nullptr, kFailWith<EIO>},
        {"tool without effect", fails, calls({tool}), nullptr, kNothing},
        {"tools without effect for good", fails, calls({tool}), nullptr, kNothingForGood},
        {"tool hangs", fails, calls({tool}), nullptr,
         [](W& w, C&) { w.mishap = {.nothing = true, .hangs = true}; }},

        // What ends a lease.
        {"SIGTERM", cause, kAny, nullptr, kStopSignal<SIGTERM>},
        {"SIGINT", cause, kAny, nullptr, kStopSignal<SIGINT>},
        {"SIGHUP", cause, kAny, nullptr, kStopSignal<SIGHUP>},
        {"owner gone", cause, kAny, nullptr, kOwnerGone},
        {"stop file", cause, kAny, kOneShotLease, [](W& w, C&) { w.stopFileAt = 0; }},
        {"end of input", cause, kAny, kInSession, [](W& w, C&) { w.closeInputNow(); }},
        {"shutdown", fails, kAny, kInSession,
         [](W& w, C&) { w.sendNow("{\"command\":\"shutdown\"}", Ask::shutdown); }},
        {"replacement", fails, kWithoutLock, kInSession,
         [](W& w, C&) { w.sendNow("{\"command\":\"test-fans\"}", Ask::lease); }},

        // How the machine and the caller are found.
        {"take-fan fan=last", unfit, kBefore, kFans},
        {"take-fan fan=0", unfit, kBefore, kFans},
        {"hold-unlock value=1", unfit, kBefore, kByModeKeyOnly},
        {"other-write key=F0Md value=2", unfit, kBefore, kByModeKey},
        {"other-write key=F0Md value=3", none, kBefore, kByModeKeyOnly},
        {"a mask for a fan that there is not", unfit, kBefore, kByMask,
         [](W& w, C&) { w.mac.otherWrites("FS! ", 1 << w.mac.fanCount()); }},
        {"refuse-read key=F0Md code=0x85", unfit, kBefore, kByModeKeyOnly},
        {"refuse-read key=F0Tg code=0x85", unfit, kBefore, kTakesFans},
        {"refuse-read key=F0Mx code=0x85", unfit, kBefore, kTakesFans},
        {"other-write key=F0Tg value=9000", unfit, kBefore, kTakesAtOnce},
        {"other-write key=F0Mx value=1900", unfit, kBefore, kTakesFans},
        {"other-write key=F0Mn value=0", unfit, kBefore, kFollowsCurve},
        {"not root", denied, kBefore, kFans, [](W& w, C&) { w.environment.effectiveUser = 501; }},
        {"another user's session", denied, kBefore, kInSession,
         [](W& w, C&) { w.environment.realUser = 502; }},
        {"a caller that is gone", denied, kBefore, kTakesFans, kOwnerGone},
    };
    return kinds;
}

}  // namespace ferovane::testing
