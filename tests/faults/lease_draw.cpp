#include "tests/faults/lease_draw.h"

#include <algorithm>
#include <sstream>

namespace ferovane::testing {
namespace {

constexpr double kCoolingSeconds = 300;
constexpr double kProfileSeconds = 1800;
constexpr double kFanTestSeconds = 5;

constexpr std::uint64_t kMostStrikes = 4;
// Calls: more than the checks and the taking of ten fans make, or a round, or a hand-back.
constexpr std::uint64_t kCallsOfStart = 150;
constexpr std::uint64_t kCallsOfRound = 40;
constexpr std::uint64_t kCallsOfHandBack = 12;

// What no single call of a matrix can show: things that last for a while.
const std::vector<FaultKind>& longerKinds() {
    static const std::vector<FaultKind> kinds{
        {"temperatures gone", [](const Call&, const Flow&) { return true; },
         [](FaultWorld& w, const Call&) {
             for (const char* key : {"TC0C", "TC0P", "TC1C", "TCMb", "Tp01", "Tp05"}) {
                 w.mac.refuseReads(key, simulator::kKeyNotFound);
             }
         }},
        {"everything works again", [](const Call&, const Flow&) { return true; },
         [](FaultWorld& w, const Call&) {
             w.mac.clearFaults();
             w.lasting.clear();
             w.tools.lasting = {};
         }},
    };
    return kinds;
}

std::vector<const FaultKind*> allKinds() {
    std::vector<const FaultKind*> all;
    for (const auto* kinds : {&faultKinds(), &longerKinds()}) {
        for (const FaultKind& kind : *kinds) {
            all.push_back(&kind);
        }
    }
    return all;
}

bool asksForALease(const Flow& flow) {
    return flow.name != "session: automatic, nonsense, unknown word";
}

bool takesFans(const FaultKind& kind) {
    return &kind == &kRival || kind.name == "fan taken by another program";
}

bool freesFans(const FaultKind& kind) {
    return kind.name == "fan released by another program" || kind.name == "machine slept" ||
           kind.name == "fan vanished";
}

std::vector<const Flow*> leasesOn(const MachineKind& machine) {
    std::vector<const Flow*> leases;
    for (const Flow& flow : flows()) {
        if (flow.controlsFans && !flow.returnsAll && asksForALease(flow) &&
            !(flow.intelOnly && machine.appleSilicon)) {
            leases.push_back(&flow);
        }
    }
    return leases;
}

double naturalSeconds(const Flow& flow) {
    return flow.words.front() == "cooling"    ? kCoolingSeconds
           : flow.words.front() == "test-fan" ? kFanTestSeconds
                                              : kProfileSeconds;
}

// The monitor takes its time: nothing, a moment, or up to longer than a lease lasts.
double drawPause(Draw& draw) {
    const double most[] = {0.1, 10, 300, kProfileSeconds * 1.1};
    return 0.05 + draw.seconds(most[draw.below(std::size(most))]);
}

LeaseDraw::Strike drawStrike(double seconds, int fans, Draw& draw) {
    static const std::vector<const FaultKind*> kinds = allKinds();
    // Another program is what a lease must expect.
    const FaultKind* kind = draw.oneIn(8) ? &kRival : draw.oneOf(kinds);
    LeaseDraw::Strike strike{kind, 0, 0, false};
    const auto perFan = static_cast<std::uint64_t>(fans) + 1;
    switch (draw.below(4)) {
        case 0:
            // Some faults have only one call to strike, such as the opening of the controller.
            strike.calls = draw.oneIn(3) ? 0 : draw.below(kCallsOfStart * perFan);
            break;
        case 1:
            strike.atHandBack = true;
            strike.calls = draw.below(kCallsOfHandBack * perFan);
            break;
        default:
            strike.after = draw.seconds(seconds);
            strike.calls = draw.below(kCallsOfRound * perFan);
    }
    return strike;
}

}  // namespace

const FaultKind kRival{"target kept by another program",
                       [](const Call& call, const Flow&) { return call.isController(); },
                       [](FaultWorld& w, const Call&) {
                           const bool free = !w.mac.fanManual(0);
                           // What no lease would set, so that it cannot agree by chance.
                           w.mac.otherKeepsTarget(0, w.mac.fanMaximum(0) + 500, kRivalSeconds);
                           if (free) {
                               w.spy.otherTook(0);
                           }
                       }};

LeaseDraw::LeaseDraw(const MachineKind& machine, int fans, Draw& draw)
    : flow(*draw.oneOf(leasesOn(machine))),
      endsEarly(draw.oneIn(2)),
      leaseSeconds(naturalSeconds(flow)),
      longestSeconds(leaseSeconds),
      orderSeed(flow.isSession() && draw.oneIn(2) ? draw.below(1000) + 1 : 0) {
    if (flow.isSession()) {
        leaseSeconds = 0;
        for (std::size_t i = 1; i < flow.monitor.size(); ++i) {
            leaseSeconds += flow.monitor[i].after = drawPause(draw);
        }
    }
    ending = draw.seconds(leaseSeconds);
    for (std::uint64_t left = draw.below(kMostStrikes); left > 0; --left) {
        const Strike strike = drawStrike(endsEarly ? ending : leaseSeconds, fans, draw);
        // Where nothing may be written as long as a fan is another program's, it has to stay so.
        if (!flow.handsOff || !freesFans(*strike.kind)) {
            strikes.push_back(strike);
        }
    }
    if (machine.name == "forced mask") {
        dropAmbiguous();
    }
}

// Whose a fan is that another program took while a mask was on its way that still has its bit: who
// could tell?
void LeaseDraw::dropAmbiguous() {
    const bool late = std::any_of(strikes.begin(), strikes.end(),
                                  [](const Strike& strike) { return strike.kind->settlesLate; });
    std::erase_if(strikes,
                  [late](const Strike& strike) { return late && takesFans(*strike.kind); });
}

std::string LeaseDraw::text() const {
    std::ostringstream text;
    text << flow.name;
    if (endsEarly) {
        text << ", at most until " << ending << " s";
    }
    for (const Strike& strike : strikes) {
        text << "; " << strike.kind->name << " after ";
        if (strike.atHandBack) {
            text << "the end";
        } else {
            text << strike.after << " s";
        }
        text << " and " << strike.calls << " calls";
    }
    return text.str();
}

}  // namespace ferovane::testing
