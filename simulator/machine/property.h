// The outside world of a simulated Mac, as named values that a test or the tool may set.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace simulator {

// A property that follows something does so until it is set, or made absent.
enum class PropertyForm : std::uint32_t {
    kFollows,  // what the comment of the property says; absent where it says nothing
    kNumber,
    kNotANumber,  // a text where a number belongs
    kAbsent,      // never published: whoever asks for it finds nothing
};

enum class Property : std::uint32_t {
    kLoad,          // processor load, percent
    kGraphicsLoad,  // percent
    kAmbient,       // room temperature, °C
    kSpeed,         // how many times faster than the clock heat, fans and battery run

    kAcPower,         // 1 on mains, 0 on battery; "absent": the power-source query has no answer
    kBatteryPresent,  // 0: no battery, no "AppleSmartBattery", no battery source
    kBatteryPercent,  // 0 to 100
    kBatteryMillivolts,
    kBatteryMilliamps,  // negative while discharging; follows the power drawn
    kBatteryCharging,   // 0 or 1; follows AC power and charge
    kBatteryCycles,

    kSpeedLimit,      // percent, as IOPMCopyCPUPowerStatus publishes it; the three of this group
    kSchedulerLimit,  // may each be absent or not a number, and with all three absent nothing
    kAvailableCpus,   // was ever published
    kThermalWarning,  // the platform's unordered level; absent: never published
    kThermalState,    // 0 to 3; follows the die temperature
    kLowPowerFlag,    // 0 or 1; absent: the system has no such flag
    kMemoryPressure,  // 1, 2, 4, or whatever a test wants the sysctl to say
    kProcessors,      // logical processors
    kManualMode,      // ManualModeRule as a number: what a write of mode 1 meets

    kPrivileged,         // 1 or 0 for every process; absent: a process's effective user decides
    kExtensionLoaded,    // the turbo-disabling extension, 0 or 1
    kExtensionApproval,  // ExtensionApproval as a number: what loading it meets
    kExtensionAnswers,   // 0: the extension manager gives no answer
    kAssertionsAnswer,   // 0: the power daemon is unreachable
    kTurboApplications,  // TurboInstallation bits (directory machines only)

    kCount
};

enum class ManualModeRule : std::uint32_t {
    kAcceptedAtOnce,
    kRefusedUntilUnlocked,  // in mode 3, until the unlock key is set and the system has let go
    kWithoutEffect,         // answered 0, and nothing happens
};

enum class ExtensionApproval : std::uint32_t {
    kApproved = 0,
    kNotApproved = 1,
    kRestartRequired = 2,
    kNotLoadable = 3,  // the kernel refuses it
};

// Where the turbo-disabling extension can be found, as bits.
enum TurboInstallation : std::uint32_t {
    kTurboProApplication = 1,
    kTurboApplication = 2,
    kTurboInLibrary = 4,  // where the extension tool finds it by its identifier
};

// The name of a property in the tool's "set", in the journal and in scripts: "load", "ac" …
std::string_view propertyName(Property property);
std::optional<Property> propertyNamed(std::string_view name);

// "absent", "text" and "follow" in the same places; "" stands for a number, as any other word does.
std::string_view formName(PropertyForm form);
PropertyForm formNamed(std::string_view name);

// A number that somebody wrote for a machine; absent unless it is finite and no larger than
// anything that is measured in one: what is not a number would spread through heat and time.
std::optional<double> worldNumber(const std::string& text);

}  // namespace simulator
