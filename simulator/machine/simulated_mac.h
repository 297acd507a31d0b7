// A simulated Mac in this process, or the one in a machine directory.
//
//     simulator::SimulatedMac mac = simulator::intelMac(2);
//     const auto attached = mac.attach();
//     mac.atCall(7).refuseWrites("F1Md", simulator::kBadCommand, simulator::kOnce);
//     …
//     EXPECT_EQ(mac.writes(), "F0Md=1 F0Tg=6200");
//     EXPECT_TRUE(mac.allFansAutomatic());
//
// A machine in memory has a virtual clock: its time passes in advance() only. A machine in a
// directory follows the host's clock. Every operation may be called from any thread. What cannot be
// done (an unknown model, a malformed dump, a directory that is no machine) throws
// std::runtime_error with an English text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simulator/machine/happenings.h"

namespace simulator {

// Calls of the controller's one IOKit method, by command.
struct CallCounts {
    std::uint64_t reads = 0;     // command 5
    std::uint64_t writes = 0;    // command 6
    std::uint64_t names = 0;     // command 8, key at index
    std::uint64_t keyInfos = 0;  // command 9
    std::uint64_t other = 0;
    std::uint64_t total() const { return reads + writes + names + keyInfos + other; }
    bool operator==(const CallCounts&) const = default;
};

// References that a process holds on the machine's services and connections. All zero when
// everything was given back; errors counts releases of what was not held.
struct PortCounts {
    int services = 0;
    int connections = 0;
    int errors = 0;
    bool operator==(const PortCounts&) const = default;
};

struct PowerSettingValue {
    std::string source;  // "AC Power", "Battery Power" or "UPS Power"
    std::string name;    // such as "displaysleep"
    std::string value;
};

// While it lives, this process sees the machine under Apple's interfaces. A second one at the same
// time throws std::logic_error.
class Attachment {
public:
    explicit Attachment(Machine& machine);
    ~Attachment();
    Attachment(const Attachment&) = delete;
    Attachment& operator=(const Attachment&) = delete;
};

class SimulatedMac : public Happenings {
public:
    explicit SimulatedMac(std::unique_ptr<Machine> machine);
    ~SimulatedMac();
    SimulatedMac(SimulatedMac&& other) noexcept;
    SimulatedMac& operator=(SimulatedMac&&) = delete;

    [[nodiscard]] Attachment attach();

    // ---- Time ------------------------------------------------------------------------------

    double now();                  // machine seconds since it was made, sleep included
    void advance(double seconds);  // virtual clock only; what is due on the way happens in order

    // The machine follows the host's clock from here on, as one in a directory does.
    void followHostClock();

    // Happenings at machine time `seconds`, after a time from now, and at the k-th controller call
    // or write from now (k = 1 is the next one; the fault strikes that very call).
    HappeningsToCome at(double seconds);
    HappeningsToCome after(double seconds);
    HappeningsToCome atCall(std::uint64_t k);
    HappeningsToCome atWrite(std::uint64_t k);

    // ---- Keys ------------------------------------------------------------------------------

    // Adds or replaces a key. type: four characters ("ui8" is filled up with a blank). It holds
    // these bytes from now on and follows nothing any more, whatever its name. bytes: at most 32
    // are ever returned by the controller, but a key may claim to be larger.
    void setKey(std::string_view key, std::string_view type,
                const std::vector<std::uint8_t>& bytes);
    void setKeySize(std::string_view key, std::uint32_t size);
    // In the type that the key has. Fan keys, the forced mask and the unlock change what they stand
    // for; any other key keeps the number, and does not follow heat or load any more.
    void setNumber(std::string_view key, double number);
    void setUnreadable(std::string_view key);  // by its attributes; answers 0x85
    void removeKey(std::string_view key);
    void addTemperatureKeys(int count);  // "T000" …, flt, each with an idle value of its own

    bool hasKey(std::string_view key);
    std::size_t keyCount();
    // The key's value now, decoded; absent for an unknown, unreadable or not numeric key.
    std::optional<double> number(std::string_view key);
    std::vector<std::uint8_t> bytes(std::string_view key);

    // ---- Fans and heat ---------------------------------------------------------------------

    int fanCount();
    double fanRpm(int fan);
    double fanTarget(int fan);
    double fanMinimum(int fan);
    double fanMaximum(int fan);
    bool fanManual(int fan);  // by mode key or mask: somebody's target counts
    // Every fan under the system's own control and the unlock key not held. A fan that vanished in
    // manual mode is still manual.
    bool allFansAutomatic();
    double dieTemperature();
    double heatSinkTemperature();

    // Lets the machine settle in its present load without moving the clock.
    void settle();

    // ---- The world -------------------------------------------------------------------------

    std::optional<double> value(Property property);
    void setModelName(std::string_view text);  // as simulated-mac shows it
    void setCpuBrand(std::string_view text);   // "": not published
    void setSystemVersion(std::string_view text);
    void setAppleSilicon(bool appleSilicon);
    void setRoot(std::string_view directory);  // where tools and bundles are looked up

    void hold(const Assertion& assertion);
    void releaseAssertions(int pid);

    void setPowerSetting(std::string_view source, std::string_view name, std::string_view value);
    void removePowerSetting(std::string_view source, std::string_view name);
    std::optional<std::string> powerSetting(std::string_view source, std::string_view name);
    std::vector<PowerSettingValue> powerSettings();

    // ---- What was done to it ---------------------------------------------------------------

    // In order, one line each: number, machine time, process, what, result.
    std::vector<std::string> journal();
    // The controller writes of attached processes since clearJournal, in order and decoded, such as
    // "F0Md=1 F0Tg=6200"; a refused one carries its code: "F0Md=1!82", or "F0Md=1!E00002C1".
    std::string writes();
    void clearJournal();

    CallCounts calls();
    void clearCalls();
    PortCounts ports();  // of this process

    Machine& machine() { return *owned_; }

private:
    std::unique_ptr<Machine> owned_;
};

// ---- Machines in memory ------------------------------------------------------------------------

// A built-in machine by name ("MacBookPro16,1", "M4Max" …), as builtInModels lists them.
SimulatedMac builtInMac(std::string_view name);
// From a key dump, CSV with the header "key,type,size,attributes,bytes,result".
SimulatedMac macFromKeyDump(std::string_view csv);

// Small machines with few keys, for tests; 0 to 10 fans. Fan i has 2000 - 50 i to 6200 - 400 i rpm
// (fan 0: 2000 to 6200, fan 1: 1950 to 5800) and runs at its minimum under the controller's own
// control, the die is at about 50 °C ("TC0P"), and there is a key or two per sensor kind.

// T2: float fans, mode keys, no mask, minimum and maximum read-only.
SimulatedMac intelMac(int fans);
// Before T2: fpe2 fans and the forced mask "FS! ", no mode keys.
SimulatedMac intelMacWithMaskOnly(int fans);

struct AppleSiliconOptions {
    using ManualMode = ManualModeRule;
    ManualMode manualMode = ManualMode::kAcceptedAtOnce;
    bool lowerCaseModeKey = false;  // "F0md" instead of "F0Md"
    bool unlockKey = true;          // "Ftst" exists
    bool raisesLowTargets = false;  // a target below the minimum is raised to it and reads back so
};
SimulatedMac appleSiliconMac(int fans, const AppleSiliconOptions& options = {});
SimulatedMac macWithoutController();

// ---- Machines in directories -------------------------------------------------------------------

// Makes a machine directory (which must not hold a machine yet; its parent must exist).
SimulatedMac createMachineDirectory(const std::string& directory, std::string_view modelName);
SimulatedMac createMachineDirectoryFromKeyDump(const std::string& directory, std::string_view csv);
SimulatedMac openMachineDirectory(const std::string& directory);

struct ModelInfo {
    std::string name;
    std::string description;
};
std::vector<ModelInfo> builtInModels();

}  // namespace simulator
