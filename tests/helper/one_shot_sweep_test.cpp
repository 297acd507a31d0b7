// Every one-shot fan command on every kind of machine, with each controller call failing in turn.
#include <gtest/gtest.h>

#include "tests/helper/helper_world.h"

namespace ferovane::testing {
namespace {

using simulator::SimulatedMac;

struct MachineKind {
    std::string name;
    bool appleSilicon;
    std::function<SimulatedMac(int fans)> make;
};

std::vector<MachineKind> machineKinds() {
    using Options = simulator::AppleSiliconOptions;
    Options locked;
    locked.manualMode = Options::ManualMode::kRefusedUntilUnlocked;
    Options lowerCase;
    lowerCase.lowerCaseModeKey = true;
    Options deaf;
    deaf.manualMode = Options::ManualMode::kWithoutEffect;
    return {
        {"mode keys", false, simulator::intelMac},
        {"forced mask", false, simulator::intelMacWithMaskOnly},
        {"accepting", true, [](int fans) { return simulator::appleSiliconMac(fans); }},
        {"locked", true, [=](int fans) { return simulator::appleSiliconMac(fans, locked); }},
        {"lower case", true, [=](int fans) { return simulator::appleSiliconMac(fans, lowerCase); }},
        {"deaf", true, [=](int fans) { return simulator::appleSiliconMac(fans, deaf); }},
    };
}

using Strike = std::function<void(SimulatedMac&, std::uint64_t k)>;

std::vector<std::pair<std::string, Strike>> strikes() {
    return {
        {"refused once",
         [](SimulatedMac& mac, std::uint64_t k) {
             mac.atCall(k).refuseCalls(simulator::kBadCommand, simulator::kOnce);
         }},
        {"three refused",
         [](SimulatedMac& mac, std::uint64_t k) {
             mac.atCall(k).refuseCalls(simulator::kBadCommand, 3);
         }},
        {"write ignored",
         [](SimulatedMac& mac, std::uint64_t k) {
             mac.atCall(k).ignoreWrites("", simulator::kOnce);
         }},
        {"garbage", [](SimulatedMac& mac,
                       std::uint64_t k) { mac.atCall(k).readGarbage("", simulator::kOnce); }},
        {"wrong size",
         [](SimulatedMac& mac, std::uint64_t k) {
             mac.atCall(k).wrongOutputSize(79, simulator::kOnce);
         }},
    };
}

// One run of a command that is short because its owner leaves after two rounds.
void run(HelperWorld& world, const std::string& command) {
    world.onPause = [&world] { world.ownerAlive = world.pauses < 2; };
    if (command == "cooling") {
        world.cool();
    } else if (command == "profile") {
        world.profile("balanced");
    } else {
        world.run({command});
    }
}

std::uint64_t callsOf(const MachineKind& kind, int fans, const std::string& command) {
    HelperWorld undisturbed(kind.make(fans), kind.appleSilicon);
    run(undisturbed, command);
    return undisturbed.mac.calls().total();
}

// Every fan is automatic, or the failure to hand one back was told.
void expectHandedBack(HelperWorld& world, const std::string& what) {
    if (world.mac.allFansAutomatic()) {
        return;
    }
    EXPECT_NE(world.errors.text().find("恢复自动风扇失败"), std::string::npos)
        << what << "\n"
        << world.mac.writes() << "\n"
        << world.errors.text();
}

TEST(OneShotSweepTest, WhicheverCallFailsTheFansAreHandedBack) {
    int cases = 0;
    for (const MachineKind& kind : machineKinds()) {
        for (const std::string command : {"cooling", "profile", "auto"}) {
            for (const int fans : {1, 2, 10}) {
                for (const auto& [fault, strike] : strikes()) {
                    const std::uint64_t calls = callsOf(kind, fans, command);
                    // Ten fans repeat what two show: every seventh call stands for the rest there.
                    const std::uint64_t step = fans == 10 ? 7 : 1;
                    for (std::uint64_t k = 1; k <= calls; k += step) {
                        HelperWorld world(kind.make(fans), kind.appleSilicon);
                        strike(world.mac, k);
                        run(world, command);
                        expectHandedBack(world, kind.name + ", " + command + ", " + fault +
                                                    ", call " + std::to_string(k));
                        ++cases;
                    }
                }
            }
        }
    }
    RecordProperty("cases", cases);
    EXPECT_GT(cases, 1000);
}

}  // namespace
}  // namespace ferovane::testing
