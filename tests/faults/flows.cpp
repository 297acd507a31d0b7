#include "tests/faults/flows.h"

#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "core/model/uuid.h"
#include "simulator/machine/machine.h"

namespace ferovane::testing {
namespace {

using simulator::AppleSiliconOptions;
using simulator::Property;

constexpr double kSoon = 2.5;   // seconds: the first rounds are over
constexpr double kLater = 5.0;  // a profile's second round is, too
constexpr double kBusyPercent = 60;
constexpr double kAMoment = 2.2;  // between two requests: a round of a lease

const std::string kSession = "6f1c2f0e-7a44-4d2b-9a3d-0e6c9bb0a1f2";
// {"points":[{"temperature":30,"percent":20},{"temperature":80,"percent":100}],"sensor":"CPU"}
const std::string kCurve =
    "eyJwb2ludHMiOlt7InRlbXBlcmF0dXJlIjozMCwicGVyY2VudCI6MjB9LHsidGVtcGVyYXR1cmUiOjgwLCJwZXJjZW50Ij"
    "oxMDB9XSwic2Vuc29yIjoiQ1BVIn0=";

simulator::SimulatedMac appleSilicon(int fans, AppleSiliconOptions options) {
    return simulator::appleSiliconMac(fans, options);
}

std::vector<std::string> oneShot(const std::string& word) {
    return {word, "4711", "501", kSession};
}
std::vector<std::string> profile(const std::string& mode) {
    return {"profile", "4711", "501", kSession, mode, mode == "custom" ? kCurve : "-"};
}
const std::vector<std::string> kServe{"serve", "4711", "501"};

MonitorStep ask(const std::string& command, double after = kAMoment) {
    return {encodeJson(ControlRequest{.command = command}), after};
}
MonitorStep askProfile(const std::string& word, double after = 0.05) {
    return {encodeJson(ControlRequest{.command = "profile", .profile = word}), after};
}
MonitorStep askCurve(double percent, double after = 0.05) {
    const FanCurve curve{{{30, percent}, {80, 100}}, CurveSensor::cpu};
    return {encodeJson(ControlRequest{.command = "profile", .profile = "custom", .curve = curve}),
            after};
}
const MonitorStep kClose{"", kAMoment, true};
const MonitorStep kNothingMore{"", 60};

MonitorStep askOptimization() {
    ControlRequest request{.command = "power-optimize"};
    request.powerPlan = PowerOptimizationPlan{.source = PowerSource::battery,
                                              .lowPower = true,
                                              .displayMinutes = 5,
                                              .idleMinutes = 10,
                                              .disableTurbo = true};
    return {encodeJson(request), 0.05};
}
MonitorStep askRestoration() {
    PowerBackup backup;
    backup.id = *Uuid::parse(kSession);
    backup.edits = {{PowerSource::battery, PowerSetting::lowPowerMode, 0, 1},
                    {PowerSource::battery, PowerSetting::displaySleep, 2, 5},
                    {PowerSource::battery, PowerSetting::systemSleep, 1, 10}};
    backup.turboBefore = 0;
    return {encodeJson(ControlRequest{.command = "power-restore", .powerBackup = backup}), 0.05};
}

void ownerLeaves(FaultWorld& world) {
    world.ownerLeavesAt = kSoon;
}
void ownerLeavesLater(FaultWorld& world) {
    world.ownerLeavesAt = kLater;
}
void stopFile(FaultWorld& world) {
    world.stopFileAt = kSoon;
}
void stopFileLater(FaultWorld& world) {
    world.stopFileAt = kLater;
}
void stopSignal(FaultWorld& world) {
    world.stopSignalAt = kLater;
}
void otherHoldsOne(FaultWorld& world) {
    world.mac.otherTakesFan(world.mac.fanCount() - 1);
    world.ownerLeavesAt = kLater;
}
void otherHeldAll(FaultWorld& world) {
    for (int fan = 0; fan < world.mac.fanCount(); ++fan) {
        world.mac.otherTakesFan(fan);
    }
}
void turboDisabled(FaultWorld& world) {
    world.mac.set(Property::kExtensionLoaded, 1);
}
void powerSettings(FaultWorld& world) {
    world.mac.set(Property::kAcPower, 0);
    for (const char* source : {"AC Power", "Battery Power"}) {
        world.mac.setPowerSetting(source, "lowpowermode", "0");
        world.mac.setPowerSetting(source, "displaysleep", "2");
        world.mac.setPowerSetting(source, "sleep", "1");
    }
}

// Under a load that lets every fan run, or it could not be leased.
simulator::SimulatedMac builtInUnderLoad(const std::string& name) {
    simulator::SimulatedMac mac = simulator::builtInMac(name);
    mac.set(Property::kLoad, kBusyPercent);
    mac.settle();
    return mac;
}

std::vector<MachineKind> withBuiltIn(std::vector<MachineKind> kinds) {
    for (const simulator::ModelInfo& model : simulator::builtInModels()) {
        simulator::SimulatedMac mac = builtInUnderLoad(model.name);
        if (mac.fanCount() > 0) {
            const auto make = [name = model.name](int) { return builtInUnderLoad(name); };
            kinds.push_back({model.name, mac.machine().appleSilicon(), make, mac.fanCount()});
        }
    }
    return kinds;
}

template <class Predicate>
std::vector<const MachineKind*> machinesThat(Predicate isWanted) {
    std::vector<const MachineKind*> wanted;
    for (const MachineKind& kind : machineKinds()) {
        if (isWanted(kind)) {
            wanted.push_back(&kind);
        }
    }
    return wanted;
}

}  // namespace

const std::vector<MachineKind>& machineKinds() {
    using Options = AppleSiliconOptions;
    using Mode = Options::ManualMode;
    static const std::vector<MachineKind> kinds = withBuiltIn({
        {"mode keys", false, simulator::intelMac},
        {"forced mask", false, simulator::intelMacWithMaskOnly},
        {"accepting", true, [](int fans) { return appleSilicon(fans, {}); }},
        {"locked", true,
         [](int fans) { return appleSilicon(fans, {.manualMode = Mode::kRefusedUntilUnlocked}); }},
        {"lower case", true,
         [](int fans) { return appleSilicon(fans, {.lowerCaseModeKey = true}); }},
        {"deaf", true,
         [](int fans) { return appleSilicon(fans, {.manualMode = Mode::kWithoutEffect}); }},
        {"without unlock", true, [](int fans) { return appleSilicon(fans, {.unlockKey = false}); }},
        {"raising targets", true,
         [](int fans) { return appleSilicon(fans, {.raisesLowTargets = true}); }},
    });
    return kinds;
}

std::vector<const MachineKind*> smallMachines() {
    return machinesThat([](const MachineKind& kind) { return kind.ownFans == 0; });
}

std::vector<const MachineKind*> builtInMachines() {
    return machinesThat([](const MachineKind& kind) { return kind.ownFans > 0; });
}

const std::vector<Flow>& flows() {
    static const std::vector<Flow> all{
        {.name = "cooling until the owner leaves",
         .words = oneShot("cooling"),
         .prepare = ownerLeaves},
        {.name = "cooling until the stop file", .words = oneShot("cooling"), .prepare = stopFile},
        {.name = "test-fan", .words = oneShot("test-fan")},
        {.name = "profile until a signal", .words = profile("balanced"), .prepare = stopSignal},
        {.name = "profile with turbo until the stop file",
         .words = profile("quiet"),
         .prepare = stopFileLater,
         .intelOnly = true},
        {.name = "profile with a curve until the owner leaves",
         .words = profile("custom"),
         .prepare = ownerLeavesLater},
        {.name = "auto", .words = {"auto"}, .prepare = otherHeldAll, .returnsAll = true},
        {.name = "turbo-disable", .words = {"turbo-disable"}, .controlsFans = false},
        {.name = "turbo-enable",
         .words = {"turbo-enable"},
         .prepare = turboDisabled,
         .controlsFans = false},
        {.name = "probe", .words = {"probe"}, .controlsFans = false},
        {.name = "fan-probe", .words = {"fan-probe"}, .controlsFans = false},
        {.name = "cooling beside another program",
         .words = oneShot("cooling"),
         .prepare = otherHoldsOne,
         .handsOff = true},
        {.name = "profile beside another program",
         .words = profile("custom"),
         .prepare = otherHoldsOne,
         .handsOff = true},
        {.name = "session: profile, status, shutdown",
         .words = kServe,
         .monitor = {ask("hello", 0.05), askProfile("balanced"), ask("status"), ask("shutdown")},
         .intelOnly = true},
        {.name = "session: profile with turbo, auto, end of input",
         .words = kServe,
         .monitor = {askProfile("quiet"), ask("auto"), kClose},
         .intelOnly = true},
        {.name = "session: fan test to its end, shutdown",
         .words = kServe,
         .monitor = {ask("test-fans", 0.05), ask("status", 6), ask("shutdown")}},
        {.name = "session: a curve replaces another, end of input",
         .words = kServe,
         .monitor = {askCurve(20), askCurve(50, kAMoment), kClose}},
        {.name = "session: curve until the owner leaves",
         .words = kServe,
         .monitor = {askCurve(20), kNothingMore},
         .prepare = ownerLeavesLater},
        {.name = "session: curve until a signal",
         .words = kServe,
         .monitor = {askCurve(20), kNothingMore},
         .prepare = stopSignal},
        {.name = "session: turbo off and on",
         .words = kServe,
         .monitor = {ask("turbo-disable", 0.05), ask("turbo-enable", 0.05), ask("shutdown", 0.05)},
         .intelOnly = true,
         .controlsFans = false},
        {.name = "session: power plan and its undoing",
         .words = kServe,
         .monitor = {askOptimization(), askRestoration(), ask("shutdown", 0.05)},
         .prepare = powerSettings,
         .intelOnly = true,
         .controlsFans = false,
         .changesPower = true},
        {.name = "session: automatic, nonsense, unknown word",
         .words = kServe,
         .monitor = {askProfile("automatic"), {"{nonsense", 0.05}, ask("dance", 0.05), kClose},
         .intelOnly = true},
        {.name = "session: fan test beside another program",
         .words = kServe,
         .monitor = {ask("test-fans", 0.05), ask("shutdown", 0.05)},
         .prepare = otherHoldsOne,
         .handsOff = true},
    };
    return all;
}

}  // namespace ferovane::testing
