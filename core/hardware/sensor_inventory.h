// Which controller keys are sensors, of which kind, and what a user reads beside them.
//
// A controller has hundreds of keys whose names look like a temperature or a power but hold a
// limit, a set point, a trend or a calibration constant. What is not known to be a reading is left
// out: a monitor that names the wrong hottest sensor is worse than one that shows fewer.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/model/hardware_sensor.h"
#include "shim/fv.h"

namespace ferovane::SensorInventory {

// The kind of a key by its name, its type (four characters, the first in the most significant byte;
// trailing blanks and NULs do not count) and its size in bytes. Absent when it is no sensor.
std::optional<HardwareSensorKind> smcKind(std::string_view key, std::uint32_t type,
                                          std::uint32_t size);

// Whether some type could make the key a sensor: what does not pass need not be read.
bool mayBeSensor(std::string_view key);

// Whether a reading, in the unit of its kind, is one that the kind can have. False for NaN.
bool valid(HardwareSensorKind kind, double value);

// Whether a key is a sensor of an Apple Silicon chip itself. It is switched off with its part of
// the chip and may be on again with the next sample. To be asked on Apple Silicon only.
bool onChip(std::string_view key);

// Whether a chip sensor's reading is one that stands for "off": the firmware's substitute, or the
// bare offset that the firmware adds. A real one passes through such values, too, so this counts
// only where other sensors of the chip show something else.
bool mayStandForOff(double celsius);

// Whether a key with this value now is to be read from here on: the value is one that its kind can
// have and does not say that there is nothing to measure, or the key belongs to a part that is off
// and may be on with the next sample (the chip on Apple Silicon, graphics on Intel).
bool worthListing(std::string_view key, HardwareSensorKind kind, const FVValue& value,
                  bool appleSilicon);

// The other spelling of an Intel temperature key that ends in a small letter ("TA0P" of "TA0p");
// empty when the key has none.
std::string upperCaseTwin(std::string_view key);

// Whether a key with a small last letter tells nothing that its twin does not tell: the same
// reading, the same without the board's correction, or what is left where the twin says that no
// part is fitted.
bool repeats(std::string_view key, const FVValue& value, const FVValue& twin);

// What a user reads beside a key that smcKind gave this kind: "风扇 1" (counted from 1), "CPU ·
// TC0P", "整机功耗 · PSTR".
std::string label(std::string_view key, HardwareSensorKind kind);

// The processor cores' keys of most Intel machines, for a controller that lists no keys.
inline constexpr std::array<std::string_view, 10> kCoreKeys{"TC0C", "TC1C", "TC2C", "TC3C", "TC4C",
                                                            "TC5C", "TC6C", "TC7C", "TC8C", "TC9C"};

}  // namespace ferovane::SensorInventory
