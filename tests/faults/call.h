// One call of the code under test to the outside.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace ferovane::testing {

enum class CallKind : std::uint8_t {
    keyInfo,  // the controller's four
    keyRead,
    keyWrite,
    keyName,
    open,         // a connection to the controller
    probe,        // any other question to the machine, such as for the power source
    clock,        // the time, monotonic
    owner,        // whether the owner lives
    stopFile,     // whether the stop file exists
    poll,         // for the next request
    read,         // of a request
    write,        // of a reply, of the one-shot commands' output and of error texts
    threadStart,  // a lease's, the watchdog's, a tool's watcher
    outputFile,   // of a tool
    spawn,        // a tool
    toolWait,     // for a tool's end
};
inline constexpr std::array<std::string_view, 16> kCallKindNames{
    "key info",     "key read",    "key write", "key name", "open", "probe",
    "clock",        "owner",       "stop file", "poll",     "read", "write",
    "thread start", "output file", "spawn",     "tool wait"};

struct Call {
    CallKind kind;
    std::uint32_t key = 0;  // the controller's, packed; 0: none

    bool isController() const { return kind <= CallKind::keyName; }
    // Whether other threads may run before it: it is never made with a lock held.
    bool mayPause() const { return kind != CallKind::clock && kind != CallKind::toolWait; }
    std::string keyText() const {
        std::string text;
        for (int shift = 24; key != 0 && shift >= 0; shift -= 8) {
            text += static_cast<char>(key >> shift & 0xFF);
        }
        return text;
    }
    bool operator==(const Call&) const = default;
};

}  // namespace ferovane::testing
