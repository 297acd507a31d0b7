// What can befall a simulated Mac: changes of the world, named faults, other programs.
//
// Each of these can happen now (called on a SimulatedMac) or at a moment to come (called on what
// SimulatedMac::at, after, atCall and atWrite return). All of them enter the journal when they
// happen, and most can be undone with clearFaults.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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

class Happenings {
public:
    // ---- The world -------------------------------------------------------------------------

    void set(Property property, double value);
    void setAbsent(Property property);
    void setNotANumber(Property property);  // the three CPU limits: a text where a number belongs

    // The clock jumps: continuous time goes on, uptime does not, and the controller wakes with the
    // unlock and every manual mode gone.
    void sleep(double seconds);

    // ---- Controller faults -----------------------------------------------------------------
    // key: four characters, or "" for any key. code: a result byte (0 to 255) or, when negative, an
    // IOKit return code of the call itself. A key's information and its bytes are both reads.

    void refuseWrites(std::string_view key, int code, int times = kForGood);
    void refuseReads(std::string_view key, int code, int times = kForGood);
    void refuseCalls(int code, int times = kForGood);               // whatever the command
    void ignoreWrites(std::string_view key, int times = kForGood);  // answered 0, without effect
    void delayWrites(std::string_view key, double seconds, int times = kForGood);  // settle later
    void readGarbage(std::string_view key, int times = kForGood);  // bytes at random, seeded
    void readZeros(std::string_view key, int times = kForGood);    // all bytes zero
    void freezeReads(std::string_view key, int times = kForGood);  // as at the first read from now
    void wrongKeySize(std::string_view key, std::uint32_t size, int times = kForGood);
    void wrongOutputSize(std::size_t size, int times = kForGood);  // bytes returned by the call
    void refuseOpening(int code, int times = kForGood);            // IOServiceOpen answers code

    // The fan's keys answer "not found" from now on; "FNum" counts up to the highest fan left.
    void vanishFan(int fan);

    // ---- Other programs --------------------------------------------------------------------

    // A write by somebody else: no fault strikes it and writes() does not list it.
    void otherWrites(std::string_view key, double number);
    void otherTakesFan(int fan);              // manual mode, at its maximum
    void otherReleasesFan(int fan);           // automatic mode
    void driftTarget(int fan, double byRpm);  // moves the target
    void otherHoldsUnlock(bool held = true);  // "Ftst"
    void otherKeepsTarget(int fan, double rpm, double periodSeconds);  // writes it again and again

    // ---- Tools -----------------------------------------------------------------------------
    // tool: "pmset", "kmutil", or "" for either. Directory machines only: tools are processes.
    // text: at most 63 bytes.

    void toolFails(std::string_view tool, int status, std::string_view text, int times = kForGood);
    void toolHangs(std::string_view tool, int times = kForGood);           // until SIGTERM
    void toolIgnoresSigterm(std::string_view tool, int times = kForGood);  // hangs until SIGKILL
    void toolPrintsGarbage(std::string_view tool, int times = kForGood);   // not UTF-8, then works
    void toolPrintsMegabyte(std::string_view tool, int times = kForGood);  // then works
    void toolIgnoresChange(std::string_view tool, int times = kForGood);  // exit 0, nothing changed

    void clearFaults();

protected:
    Happenings(Machine& machine, Moment moment) : machine_(&machine), moment_(moment) {}
    ~Happenings() = default;

    Machine* machine_;
    Moment moment_;
};

// Happenings at a moment to come. Short-lived: name the happening at once, as in
// mac.at(41).driftTarget(0, 2).
class HappeningsToCome : public Happenings {
public:
    HappeningsToCome(Machine& machine, Moment moment) : Happenings(machine, moment) {}
};

}  // namespace simulator
