// What can befall a simulated Mac: changes of the world, named faults, other programs.
//
// Each of these can happen now (called on a SimulatedMac) or at a moment to come (called on what
// SimulatedMac::at, after, atCall and atWrite return). All of them enter the journal when they
// happen, and most can be undone with clearFaults.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "simulator/machine/property.h"

namespace simulator {

class Machine;

// How often a fault strikes before it is used up.
inline constexpr int kForGood = 0;
inline constexpr int kOnce = 1;

// The controller's result bytes that tests name most.
inline constexpr int kBadCommand = 0x82;
inline constexpr int kKeyNotFound = 0x84;
inline constexpr int kNotReadable = 0x85;
inline constexpr int kNotWritable = 0x86;
inline constexpr int kSizeMismatch = 0x87;

struct Moment {
    enum class Kind : std::uint32_t { kNow, kTime, kCall, kWrite };
    Kind kind = Kind::kNow;
    double seconds = 0;  // machine time, for kTime
    std::uint64_t count =
        0;  // the count of controller calls (kCall) or writes (kWrite) that is hit
};

struct Assertion {
    int pid = 0;
    std::string process = {};
    std::string type =
        {};  // such as "PreventUserIdleSystemSleep"; "": an entry that is no dictionary
    std::string reason = {};
    std::int64_t level = 255;
    double since = 0;  // seconds since 2001-01-01 00:00:00 UTC
};

// Order as in the table of faults.cpp.
enum class FaultKind : std::uint32_t {
    // Lasting: they wait for a controller call or a tool to strike.
    kRefuseWrite,
    kRefuseRead,
    kRefuseCall,
    kIgnoreWrite,
    kDelayWrite,
    kGarbage,
    kZero,
    kFreeze,
    kKeySize,
    kOutputSize,
    kRefuseOpen,
    kToolFails,
    kToolHangs,
    kToolIgnoresSigterm,
    kToolGarbage,
    kToolMegabyte,
    kToolNoEffect,
    kLogHangs,
    // Momentary: they happen once.
    kVanishFan,
    kOtherWrites,
    kTakeFan,
    kReleaseFan,
    kDriftTarget,
    kHoldUnlock,
    kKeepTarget,
    kSet,
    kSleep,
    kClearFaults,
    kCount
};

// What a happening is made of; a kind looks at what it takes.
struct Happening {
    FaultKind kind;
    std::string_view key = {};
    int code = 0;
    int times = kForGood;
    int fan = 0;
    double number = 0;
    double seconds = 0;
    std::string_view tool = {};
    std::string_view text = {};
    Property property = Property::kLoad;
    PropertyForm form = PropertyForm::kNumber;
};

class Happenings {
public:
    // ---- The world -------------------------------------------------------------------------

    void set(Property property, double value) {
        befall({.kind = FaultKind::kSet, .number = value, .property = property});
    }
    void setAbsent(Property property) { setForm(property, PropertyForm::kAbsent); }
    void setFollowing(Property property) { setForm(property, PropertyForm::kFollows); }
    void setNotANumber(Property property) { setForm(property, PropertyForm::kNotANumber); }

    // The clock jumps: continuous time goes on, uptime does not, and the controller wakes with the
    // unlock and every manual mode gone.
    void sleep(double seconds) { befall({.kind = FaultKind::kSleep, .seconds = seconds}); }

    // ---- Controller faults -----------------------------------------------------------------
    // key: four characters, or "" for any key. code: a result byte (0 to 255) or, when negative, an
    // IOKit return code of the call itself. A key's information and its bytes are both reads.

    void refuseWrites(std::string_view key, int code, int times = kForGood) {
        befall({.kind = FaultKind::kRefuseWrite, .key = key, .code = code, .times = times});
    }
    void refuseReads(std::string_view key, int code, int times = kForGood) {
        befall({.kind = FaultKind::kRefuseRead, .key = key, .code = code, .times = times});
    }
    void refuseCalls(int code, int times = kForGood) {  // whatever the command
        befall({.kind = FaultKind::kRefuseCall, .code = code, .times = times});
    }
    void ignoreWrites(std::string_view key, int times = kForGood) {  // answered 0, without effect
        befall({.kind = FaultKind::kIgnoreWrite, .key = key, .times = times});
    }
    void delayWrites(std::string_view key, double seconds, int times = kForGood) {  // settle later
        befall({.kind = FaultKind::kDelayWrite, .key = key, .times = times, .seconds = seconds});
    }
    void readGarbage(std::string_view key, int times = kForGood) {  // bytes at random, seeded
        befall({.kind = FaultKind::kGarbage, .key = key, .times = times});
    }
    void readZeros(std::string_view key, int times = kForGood) {  // all bytes zero
        befall({.kind = FaultKind::kZero, .key = key, .times = times});
    }
    void freezeReads(std::string_view key, int times = kForGood) {  // as at the first read from now
        befall({.kind = FaultKind::kFreeze, .key = key, .times = times});
    }
    void wrongKeySize(std::string_view key, std::uint32_t size, int times = kForGood) {
        const double bytes = size;
        befall({.kind = FaultKind::kKeySize, .key = key, .times = times, .number = bytes});
    }
    void wrongOutputSize(std::size_t size, int times = kForGood) {  // bytes returned by the call
        const auto bytes = static_cast<double>(size);
        befall({.kind = FaultKind::kOutputSize, .times = times, .number = bytes});
    }
    void refuseOpening(int code, int times = kForGood) {  // IOServiceOpen answers code
        befall({.kind = FaultKind::kRefuseOpen, .code = code, .times = times});
    }

    // The fan's keys answer "not found" from now on; "FNum" counts up to the highest fan left.
    void vanishFan(int fan) { befall({.kind = FaultKind::kVanishFan, .fan = fan}); }

    // ---- Other programs --------------------------------------------------------------------

    // A write by somebody else: no fault strikes it and writes() does not list it.
    void otherWrites(std::string_view key, double number) {
        befall({.kind = FaultKind::kOtherWrites, .key = key, .number = number});
    }
    void otherTakesFan(int fan) {  // manual mode, at its maximum
        befall({.kind = FaultKind::kTakeFan, .fan = fan});
    }
    void otherReleasesFan(int fan) {  // automatic mode
        befall({.kind = FaultKind::kReleaseFan, .fan = fan});
    }
    void driftTarget(int fan, double byRpm) {  // moves the target
        befall({.kind = FaultKind::kDriftTarget, .fan = fan, .number = byRpm});
    }
    void otherHoldsUnlock(bool held = true) {  // "Ftst"
        befall({.kind = FaultKind::kHoldUnlock, .number = held ? 1.0 : 0.0});
    }
    // Writes it again and again; a period of 0 ends that.
    void otherKeepsTarget(int fan, double rpm, double periodSeconds) {
        befall(
            {.kind = FaultKind::kKeepTarget, .fan = fan, .number = rpm, .seconds = periodSeconds});
    }

    // ---- Tools -----------------------------------------------------------------------------
    // tool: "pmset", "kmutil", or "" for either. Directory machines only: tools are processes.
    // text: at most 63 bytes.

    void toolFails(std::string_view tool, int status, std::string_view text, int times = kForGood) {
        befall({.kind = FaultKind::kToolFails,
                .code = status,
                .times = times,
                .tool = tool,
                .text = text});
    }
    void toolIgnoresChange(std::string_view tool, int times = kForGood) {  // exit 0 all the same
        toolMisbehaves(FaultKind::kToolNoEffect, tool, times);
    }
    // kToolHangs until SIGTERM, kToolIgnoresSigterm until SIGKILL; kToolGarbage (no UTF-8) and
    // kToolMegabyte print that and then work.
    void toolMisbehaves(FaultKind kind, std::string_view tool, int times = kForGood) {
        befall({.kind = kind, .times = times, .tool = tool});
    }

    void clearFaults() { befall({.kind = FaultKind::kClearFaults}); }

protected:
    Happenings(Machine& machine, Moment moment) : machine_(&machine), moment_(moment) {}
    ~Happenings() = default;

    Machine* machine_;
    Moment moment_;

private:
    void befall(const Happening& happening);
    void setForm(Property property, PropertyForm form) {
        befall({.kind = FaultKind::kSet, .property = property, .form = form});
    }
};

// Happenings at a moment to come. Short-lived: name the happening at once, as in
// mac.at(41).driftTarget(0, 2).
class HappeningsToCome : public Happenings {
public:
    HappeningsToCome(Machine& machine, Moment moment) : Happenings(machine, moment) {}
};

}  // namespace simulator
