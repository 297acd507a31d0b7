// The words in which a fan controller is spoken to, and the limits within which it is believed.
#pragma once

#include <array>
#include <string>
#include <vector>

namespace ferovane {

namespace FanLimits {

inline constexpr int kFans = 10;                // a fan's keys have one digit for its index, from 0
inline constexpr double kRatedRpm = 12000;      // no Mac's fan is rated higher: a misread value
inline constexpr double kLeaseSeconds = 1800;   // for which fans are held at most
inline constexpr double kCoolingSeconds = 300;  // for which they may be held at full speed

constexpr bool isFan(int index) {
    return index >= 0 && index < kFans;
}

}  // namespace FanLimits

namespace FanKeys {

inline constexpr const char* kCount = "FNum";
inline constexpr const char* kForcedMask = "FS! ";  // bit i is set while fan i is manual
inline constexpr const char* kUnlock = "Ftst";  // Apple Silicon: not 0 while a program holds fans

// What follows "F" and the fan's digit. Speeds are in rpm.
inline constexpr const char* kSpeed = "Ac";
inline constexpr const char* kMinimum = "Mn";
inline constexpr const char* kMaximum = "Mx";
inline constexpr const char* kTarget = "Tg";
inline constexpr const char* kMode = "Md";
// Apple Silicon spells it in either way; looked for in this order.
inline constexpr std::array<const char*, 2> kModes{kMode, "md"};

// "F0Md". Needs no memory for an index within FanLimits.
inline std::string of(int fan, const char* name) {
    return std::string("F").append(std::to_string(fan)).append(name);
}

// What tells whether and how the first fan can be controlled.
inline std::vector<std::string> ofFirstFan() {
    std::vector<std::string> keys{kCount, kUnlock, kForcedMask};
    for (const char* name : {kModes[0], kModes[1], kTarget, kSpeed, kMinimum, kMaximum}) {
        keys.push_back(of(0, name));
    }
    return keys;
}

}  // namespace FanKeys

// Values of a mode key. The controller has two automatic states; any other value than these three
// means that some other program owns the fan.
namespace FanMode {

inline constexpr double kAutomatic = 0;
inline constexpr double kManual = 1;
inline constexpr double kSystemAutomatic = 3;

constexpr bool isAutomatic(double mode) {
    return mode == kAutomatic || mode == kSystemAutomatic;
}

}  // namespace FanMode

}  // namespace ferovane
