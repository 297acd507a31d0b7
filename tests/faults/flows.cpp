#include "tests/faults/flows.h"

#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "simulator/machine/machine.h"

namespace ferovane::testing {
namespace {

using simulator::AppleSiliconOptions;
using Mode = AppleSiliconOptions::ManualMode;

constexpr double kCoolingSeconds = 300;
constexpr double kProfileSeconds = 1800;
constexpr double kFanTestSeconds = 5;
constexpr double kSoon = 7;  // seconds: the first rounds are over
constexpr double kLongIdle = 60;
constexpr int kMostRequests = 4;

const std::string kSession = "6f1c2f0e-7a44-4d2b-9a3d-0e6c9bb0a1f2";
// {"points":[{"temperature":30,"percent":20},{"temperature":80,"percent":100}],"sensor":"CPU"}
const std::string kCurve =
    "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjozMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjgwLCJwZXJjZW50Ij"
    "oxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";

MachineKind appleSilicon(const char* name, bool canBeHeld, const AppleSiliconOptions& options) {
    const auto make = [options](int fans) { return simulator::appleSiliconMac(fans, options); };
    return {name, true, canBeHeld, make};
}

// ---- One-shot commands -------------------------------------------------------------------------

Flow cooling(const std::string& word, double seconds) {
    return {.name = word,
            .words = {word, "4711", "501", kSession},
            .controlsFans = true,
            .lease = true,
            .cooling = true,
            .seconds = seconds};
}

Flow profile(const std::string& mode, int turboDisabled) {
    return {.name = "profile " + mode,
            .words = {"profile", "4711", "501", kSession, mode, mode == "custom" ? kCurve : "-"},
            .controlsFans = true,
            .lease = true,
            .turboDisabled = turboDisabled,
            .seconds = kProfileSeconds};
}

Flow single(const std::string& word, int turboDisabled = -1) {
    return {.name = word, .words = {word}, .turboDisabled = turboDisabled};
}

Flow drawOneShot(const MachineKind& machine, bool lengthy, Dice& dice) {
    Flow flow;
    switch (dice.upTo(lengthy ? 6 : 11)) {
        case 0:
        case 1:
            flow = cooling("cooling", kCoolingSeconds);
            break;
        case 2:
        case 3:
            flow = cooling("test-fan", kFanTestSeconds);
            break;
        case 4:
            if (!machine.appleSilicon) {
                flow = dice.oneIn(2) ? profile("quiet", 1) : profile("balanced", 0);
                break;
            }
            [[fallthrough]];
        case 5:
        case 6:
            flow = profile("custom", -1);
            break;
        case 7:
        case 8:
        case 9:
            flow = single("auto");
            flow.controlsFans = flow.returnsAll = true;
            return flow;
        case 10:
            return dice.oneIn(2) ? single("turbo-disable", 1) : single("turbo-enable", 0);
        default:
            return single(dice.oneIn(2) ? "probe" : "fan-probe");
    }
    const bool mayLast = lengthy || flow.seconds < kSoon;
    if (!mayLast || dice.oneIn(2)) {
        flow.ending = drawSeconds(dice, mayLast ? flow.seconds : kSoon);
        constexpr double FaultWorld::*causes[] = {
            &FaultWorld::ownerLeavesAt, &FaultWorld::stopFileAt, &FaultWorld::stopSignalAt};
        flow.cause = causes[dice.upTo(2)];
    }
    return flow;
}

// ---- Sessions ----------------------------------------------------------------------------------

MonitorStep command(const std::string& word, Ask ask) {
    return {encodeJson(ControlRequest{.command = word}), ask};
}

MonitorStep drawProfile(bool appleSilicon, Dice& dice) {
    if (!dice.oneIn(3)) {
        const FanCurve curve{{{30, 10.0 * static_cast<double>(dice.upTo(6))}, {80, 100}},
                             CurveSensor::cpu};
        return {
            encodeJson(ControlRequest{.command = "profile", .profile = "custom", .curve = curve}),
            Ask::lease};
    }
    const char* word = dice.oneIn(2) ? "quiet" : "balanced";
    return {encodeJson(ControlRequest{.command = "profile", .profile = word}),
            appleSilicon ? Ask::refused : Ask::lease};
}

MonitorStep drawRequest(bool appleSilicon, Dice& dice) {
    const Ask onIntel = appleSilicon ? Ask::refused : Ask::turbo;
    switch (dice.upTo(11)) {
        case 0:
            return command("hello", Ask::status);
        case 1:
        case 2:
            return command("status", Ask::status);
        case 3:
            return command("test-fans", Ask::lease);
        case 4:
            return command("auto", Ask::automatic);
        case 5:
            return {encodeJson(ControlRequest{.command = "profile", .profile = "automatic"}),
                    appleSilicon ? Ask::refused : Ask::automatic};
        case 6:
            return dice.oneIn(2) ? MonitorStep{"{nonsense", Ask::refused}
                                 : command("dance", Ask::refused);
        case 7:
            return command(dice.oneIn(2) ? "turbo-disable" : "turbo-enable", onIntel);
        default:
            return drawProfile(appleSilicon, dice);
    }
}

Flow drawSession(const MachineKind& machine, bool lengthy, Dice& dice) {
    Flow flow{.name = "session", .words = {"serve", "4711", "501"}, .seconds = kProfileSeconds};
    flow.controlsFans = true;
    for (int left = 1 + dice.upTo(kMostRequests - 1); left > 0; --left) {
        flow.monitor.push_back(drawRequest(machine.appleSilicon, dice));
    }
    // The monitor takes its time: nothing, a moment, or up to longer than a lease lasts.
    const double most[] = {0.1, 6, 40, kProfileSeconds * 1.1};
    for (MonitorStep& step : flow.monitor) {
        step.after = 0.05 + drawSeconds(dice, most[dice.upTo(lengthy ? 3 : dice.oneIn(8) ? 2 : 1)]);
    }
    switch (dice.upTo(3)) {
        case 0:
            flow.monitor.push_back(command("shutdown", Ask::shutdown));
            flow.monitor.back().after = 0.05 + drawSeconds(dice, kSoon);
            break;
        case 1:
            flow.monitor.push_back({.after = 0.05 + drawSeconds(dice, kSoon), .closes = true});
            break;
        default:
            flow.monitor.push_back({.after = kLongIdle});
            flow.ending = drawSeconds(dice, kSoon);
            for (const MonitorStep& step : flow.monitor) {
                flow.ending += step.after < kLongIdle || lengthy ? step.after : 0;
            }
            flow.cause = dice.oneIn(2) ? &FaultWorld::ownerLeavesAt : &FaultWorld::stopSignalAt;
            flow.ending -= flow.ending > kProfileSeconds ? kProfileSeconds : 0;
    }
    for (const MonitorStep& step : flow.monitor) {
        flow.name += (step.closes         ? " close"
                      : step.line.empty() ? " wait"
                                          : " " + step.line) +
                     " after " + std::to_string(step.after);
    }
    return flow;
}

// ---- Conditions --------------------------------------------------------------------------------

bool always(const MachineKind&, const Flow&) {
    return true;
}
bool toTake(const MachineKind&, const Flow& flow) {
    return !flow.returnsAll;
}
bool onAppleSilicon(const MachineKind& machine, const Flow& flow) {
    return machine.appleSilicon && machine.canBeHeld && machine.name != "without unlock" &&
           !flow.returnsAll;
}
bool withModeKeys(const MachineKind& machine, const Flow& flow) {
    return machine.name != "forced mask" && machine.name != "lower case" && !flow.returnsAll;
}
bool oneShot(const MachineKind&, const Flow& flow) {
    return flow.lease && flow.turboDisabled < 0;
}
bool curve(const MachineKind&, const Flow& flow) {
    return !flow.cooling && !flow.returnsAll;
}

template <int fan>
void otherTakes(FaultWorld& world, Flow&) {
    world.mac.otherTakesFan(fan < 0 ? world.mac.fanCount() - 1 : fan);
}
template <const char* const& key>
void unreadable(FaultWorld& world, Flow&) {
    world.mac.refuseReads(key, simulator::kNotReadable);
}
const char* const kFirstTarget = "F0Tg";
const char* const kFirstMaximum = "F0Mx";
const char* const kFirstMode = "F0Md";

}  // namespace

const std::vector<MachineKind>& machines() {
    static const std::vector<MachineKind> kinds{
        {"mode keys", false, true, simulator::intelMac},
        {"forced mask", false, true, simulator::intelMacWithMaskOnly},
        appleSilicon("accepting", true, {}),
        appleSilicon("without unlock", true, {.unlockKey = false}),
        appleSilicon("raising targets", true, {.raisesLowTargets = true}),
        appleSilicon("locked", false, {.manualMode = Mode::kRefusedUntilUnlocked}),
        appleSilicon("lower case", false, {.lowerCaseModeKey = true}),
        appleSilicon("deaf", false, {.manualMode = Mode::kWithoutEffect}),
    };
    return kinds;
}

Flow drawFlow(const MachineKind& machine, bool lengthy, Dice& dice) {
    return dice.oneIn(2) ? drawSession(machine, lengthy, dice)
                         : drawOneShot(machine, lengthy, dice);
}

const std::vector<Condition>& conditions() {
    static const std::vector<Condition> all{
        {"another program holds the last fan", true, always, otherTakes<-1>},
        {"another program holds the first fan", true, always, otherTakes<0>},
        {"another program holds the unlock", true, onAppleSilicon,
         [](FaultWorld& w, Flow&) { w.mac.otherHoldsUnlock(); }},
        {"a mode that nobody knows", true, withModeKeys,
         [](FaultWorld& w, Flow&) { w.mac.otherWrites("F0Md", 2); }},
        {"a mode that cannot be read", true, withModeKeys, unreadable<kFirstMode>},
        {"a target that cannot be read", true, toTake, unreadable<kFirstTarget>},
        {"a rated maximum that cannot be read", true, toTake, unreadable<kFirstMaximum>},
        {"a target above its range", true, oneShot,
         [](FaultWorld& w, Flow&) { w.mac.otherWrites("F0Tg", w.mac.fanMaximum(0) + 500); }},
        {"a rated maximum below the minimum", true, toTake,
         [](FaultWorld& w, Flow&) { w.mac.setNumber("F0Mx", w.mac.fanMinimum(0) - 100); }},
        {"a rated minimum of 0", true, curve,
         [](FaultWorld& w, Flow&) { w.mac.setNumber("F0Mn", 0); }},
        {"the system's own automatic mode", false, onAppleSilicon,
         [](FaultWorld& w, Flow&) {
             for (int fan = 0; fan < w.mac.fanCount(); ++fan) {
                 w.mac.otherWrites("F" + std::to_string(fan) + "Md", 3);
             }
         }},
    };
    return all;
}

}  // namespace ferovane::testing
