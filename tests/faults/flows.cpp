#include "tests/faults/flows.h"

#include <algorithm>

#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "simulator/machine/machine.h"

namespace ferovane::testing {
namespace {

using Rule = simulator::ManualModeRule;

constexpr double kCoolingSeconds = 300;
constexpr double kProfileSeconds = 1800;
constexpr double kFanTestSeconds = 5;
constexpr double kSoon = 7;  // seconds: the first rounds are over
constexpr double kLongIdle = 60;
constexpr int kMostRequests = 4;

// {"points":[{"temperature":30,"percent":20},{"temperature":80,"percent":100}],"sensor":"CPU"}
const std::string kCurve =
    "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjozMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjgwLCJwZXJjZW50Ij"
    "oxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";

MachineKind appleSilicon(const char* name, const simulator::AppleSiliconOptions& options) {
    const bool isHeld = options.manualMode == Rule::kAcceptedAtOnce && !options.lowerCaseModeKey;
    return {name, true, isHeld, !options.lowerCaseModeKey, options.unlockKey, [options](int fans) {
                return simulator::appleSiliconMac(fans, options);
            }};
}

// A mask that nothing follows, beside the mode keys.
simulator::SimulatedMac intelMacWithBoth(int fans) {
    simulator::SimulatedMac mac = simulator::intelMac(fans);
    mac.setKey("FS! ", "ui16", {0, 0});
    return mac;
}

// ---- One-shot commands -------------------------------------------------------------------------

Flow lease(const std::string& word, std::vector<std::string> arguments, double seconds) {
    Flow flow{.name = word,
              .words = {word, "4711", "501", "6f1c2f0e-7a44-4d2b-9a3d-0e6c9bb0a1f2"},
              .controlsFans = true,
              .lease = true,
              .cooling = arguments.empty(),
              .seconds = seconds};
    flow.words.insert(flow.words.end(), arguments.begin(), arguments.end());
    return flow;
}

Flow single(const std::string& word, int turboDisabled = -1) {
    return {.name = word, .words = {word}, .turboDisabled = turboDisabled};
}

Flow drawOneShot(const MachineKind& machine, bool lengthy, Dice& dice) {
    Flow flow;
    switch (dice.upTo(lengthy ? 6 : 11)) {
        case 0:
        case 1:
            flow = lease("cooling", {}, kCoolingSeconds);
            break;
        case 2:
        case 3:
            flow = lease("test-fan", {}, kFanTestSeconds);
            break;
        case 4:
            if (!machine.appleSilicon) {
                flow.turboDisabled = dice.upTo(1);
            }
            [[fallthrough]];
        case 5:
        case 6: {
            const int turbo = flow.turboDisabled;
            const char* mode = turbo < 0 ? "custom" : turbo == 0 ? "balanced" : "quiet";
            flow = lease("profile", {mode, turbo < 0 ? kCurve : "-"}, kProfileSeconds);
            flow.turboDisabled = turbo;
            break;
        }
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

// Of the curves some ask for the same speed at every usual temperature.
MonitorStep drawProfile(bool appleSilicon, Dice& dice) {
    ControlRequest request{.command = "profile", .profile = "custom"};
    if (dice.oneIn(3)) {
        request.profile = dice.oneIn(2) ? "quiet" : "balanced";
        return {encodeJson(request), appleSilicon ? Ask::refused : Ask::lease};
    }
    const double percent = 10.0 * dice.upTo(6);
    const double level = dice.oneIn(2) ? 35 : 70;
    request.curve = FanCurve{{{30, percent}, {level, percent}, {80, 100}}, CurveSensor::cpu};
    return {encodeJson(request), Ask::lease};
}

MonitorStep drawRequest(bool appleSilicon, Dice& dice) {
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
            return command(dice.oneIn(2) ? "turbo-disable" : "turbo-enable",
                           appleSilicon ? Ask::refused : Ask::turbo);
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
    const int last = dice.upTo(2);
    MonitorStep end = last == 0 ? command("shutdown", Ask::shutdown) : MonitorStep{};
    end.closes = last == 1;
    end.after = last == 2 || dice.oneIn(6) ? kLongIdle : 0.05 + drawSeconds(dice, kSoon);
    if (last == 2) {
        flow.ending = drawSeconds(dice, dice.oneIn(4) ? kLongIdle : kSoon);
        for (const MonitorStep& step : flow.monitor) {
            flow.ending += step.after;
        }
        flow.ending -= flow.ending > kProfileSeconds ? kProfileSeconds : 0;
        flow.cause = dice.oneIn(2) ? &FaultWorld::ownerLeavesAt : &FaultWorld::stopSignalAt;
    }
    flow.monitor.push_back(end);
    for (const MonitorStep& step : flow.monitor) {
        flow.name +=
            (step.closes ? " close" : " " + step.line) + " after " + std::to_string(step.after);
    }
    return flow;
}

}  // namespace

const MachineKind& drawMachine(Dice& dice) {
    static const std::vector<MachineKind> kinds{
        {"mode keys", false, true, true, false, simulator::intelMac},
        {"mode keys and a mask", false, true, true, false, intelMacWithBoth},
        {"forced mask", false, true, false, false, simulator::intelMacWithMaskOnly},
        appleSilicon("accepting", {}),
        appleSilicon("without unlock", {.unlockKey = false}),
        appleSilicon("locked", {.manualMode = Rule::kRefusedUntilUnlocked}),
        appleSilicon("lower case", {.lowerCaseModeKey = true}),
        appleSilicon("deaf", {.manualMode = Rule::kWithoutEffect}),
    };
    const int held = static_cast<int>(std::count_if(
        kinds.begin(), kinds.end(), [](const MachineKind& kind) { return kind.canBeHeld; }));
    return kinds[static_cast<std::size_t>(
        dice.oneIn(8) ? held + dice.upTo(static_cast<int>(kinds.size()) - held - 1)
                      : dice.upTo(held - 1))];
}

Flow drawFlow(const MachineKind& machine, bool lengthy, Dice& dice) {
    Flow flow =
        dice.oneIn(2) ? drawSession(machine, lengthy, dice) : drawOneShot(machine, lengthy, dice);
    flow.machine = &machine;
    return flow;
}

}  // namespace ferovane::testing
