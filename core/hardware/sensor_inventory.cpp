#include "core/hardware/sensor_inventory.h"

#include <algorithm>
#include <cmath>

#include "core/model/raw_enum.h"
#include "core/model/snapshot.h"

namespace ferovane::SensorInventory {
namespace {

using Kind = HardwareSensorKind;
constexpr std::nullopt_t kNoSensor = std::nullopt;

// What a key's type and size let it hold.
enum class Form { floating, fixedPoint, word, other };

// What a rule asks of the form.
enum class Wants { anything, number, floating, fixedPoint, fanSpeed };

// A rule speaks of the keys whose name matches one of its patterns (separated by blanks): `#` is a
// digit, `^` an upper-case letter, `_` a lower-case letter, `*` anything printable, [ABC] one of
// those, and every other character itself. The first rule that matches decides.
struct Rule {
    std::string_view names;
    Wants wants;
    std::optional<Kind> kind;
};

constexpr Rule kRules[] = {
    // The speed a fan turns at. One old server line reports it as a plain word.
    {"F#Ac", Wants::fanSpeed, Kind::fan},
    // All other fan keys are limits, targets, duty cycles and terms of the control loop.
    {"F***", Wants::anything, kNoSensor},

    // Set points, trends and control errors of processor, graphics, card, bridge and disk.
    {"T[CGJN]#[GJT] TH#[GJ]", Wants::anything, kNoSensor},
    // A trend on Intel; on Apple Silicon the flash memory.
    {"TH#T", Wants::fixedPoint, kNoSensor},
    // Disk readings relative to the drive's own limit, mapped ones and offsets. TH0F is absolute on
    // some machines and far below zero on others, with nothing in its type to tell them apart.
    {"TH#[FRO]", Wants::anything, kNoSensor},
    // Trends and differences that read near 0 at every temperature.
    {"TCTD TGDT TC0L TFPR", Wants::anything, kNoSensor},
    // Targets: these stay at 58, 80, 98 … however cool the machine is.
    {"TCPG TCAG TCBG THTG", Wants::anything, kNoSensor},
    // Distance of the hottest core to its limit.
    {"TCXR TCXr", Wants::anything, kNoSensor},
    // Thresholds that look like a warm part and never move.
    {"TTF0 TMBS", Wants::anything, kNoSensor},
    // Terms of a filter.
    {"TCMe TCMt TCXe", Wants::anything, kNoSensor},
    // Skin temperature: limits and set points. Its readings have a digit in the third place.
    {"Ts^*", Wants::anything, kNoSensor},
    // On Intel another set point; the same name as a float is a die sensor of Apple Silicon.
    {"Ts#G", Wants::fixedPoint, kNoSensor},
    // Offsets between a part and the board beside it; on Apple Silicon sensors of the chip.
    {"T*#o", Wants::fixedPoint, kNoSensor},
    // What is left of a fan's thermal budget.
    {"TF#S", Wants::fixedPoint, kNoSensor},
    // Apple Silicon: models of the enclosure, virtual sensors mixed from others and their
    // set points (one stands at 94 while the die is at 65), flags, calibration constants.
    {"T[fzV]** Ta#*", Wants::floating, kNoSensor},
    // What remains is measured somewhere.
    {"T***", Wants::number, Kind::temperature},

    // Unprocessed copies of the upper-case key, and power, voltage and current settings.
    {"[PVI]_** [PVI]**_", Wants::anything, kNoSensor},
    // Limits, states and targets of the power zones. Their filtered (F) and mean (G) power is real.
    {"PZ#[ETS] PZ[FS][ETS]", Wants::anything, kNoSensor},
    // Limits of processor, platform and heat sink; PDCC is a share of the adapter in percent.
    {"PTHC PTHI PSHC PFHC PCPL PDCC", Wants::anything, kNoSensor},
    // Coefficients and errors of the supply's limiter.
    {"PD#[DJK]", Wants::anything, kNoSensor},
    // Relative figures of the heat model, far below zero on some machines.
    {"PH#F", Wants::anything, kNoSensor},
    {"P***", Wants::number, Kind::power},

    {"V***", Wants::number, Kind::voltage},

    // Alarms, limits, errors and filter terms of the supply rail.
    {"ID2[JAXTLQS] IDT[JAXTLQS]", Wants::anything, kNoSensor},
    // Largest currents that processor and graphics may draw or have drawn.
    {"I[CG]*X", Wants::anything, kNoSensor},
    // The battery's current target.
    {"IPBT", Wants::anything, kNoSensor},
    {"I***", Wants::number, Kind::current},
};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isUpper(char c) {
    return c >= 'A' && c <= 'Z';
}
bool isLower(char c) {
    return c >= 'a' && c <= 'z';
}
bool isPrintable(char c) {
    return c >= ' ' && c <= '~';
}

bool matchesPlace(std::string_view place, char c) {
    switch (place.front()) {
        case '#':
            return isDigit(c);
        case '^':
            return isUpper(c);
        case '_':
            return isLower(c);
        case '*':
            return isPrintable(c);
        case '[':
            return place.find(c, 1) != std::string_view::npos;
        default:
            return place.front() == c;
    }
}

// Takes one place off the front of a pattern: one character, or a set without its last bracket.
std::string_view takePlace(std::string_view& pattern) {
    const std::size_t length = pattern.front() == '[' ? pattern.find(']') : 1;
    const std::string_view place = pattern.substr(0, length);
    pattern.remove_prefix(place.front() == '[' ? length + 1 : length);
    return place;
}

bool matchesPattern(std::string_view pattern, std::string_view key) {
    for (const char c : key) {
        if (pattern.empty() || !matchesPlace(takePlace(pattern), c)) {
            return false;
        }
    }
    return pattern.empty();
}

bool matchesAny(std::string_view patterns, std::string_view key) {
    while (!patterns.empty()) {
        const std::string_view pattern = patterns.substr(0, patterns.find(' '));
        if (matchesPattern(pattern, key)) {
            return true;
        }
        patterns.remove_prefix(std::min(pattern.size() + 1, patterns.size()));
    }
    return false;
}

// Integer and fraction bits of a fixed-point type fill its word, less the sign.
bool isFixedPoint(std::string_view type) {
    const auto bits = [](char c) {
        return isDigit(c) ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    if (type.size() != 4 || type[1] != 'p' || bits(type[2]) < 0 || bits(type[3]) < 0) {
        return false;
    }
    const int sum = bits(type[2]) + bits(type[3]);
    return (type[0] == 'f' && sum == 16) || (type[0] == 's' && sum == 15);
}

Form formOf(std::uint32_t type, std::uint32_t size) {
    std::array<char, 4> characters{};
    for (std::size_t place = 0; place < characters.size(); ++place) {
        characters[place] = static_cast<char>(type >> (24 - 8 * place) & 0xFF);
    }
    std::string_view text(characters.data(), characters.size());
    while (!text.empty() && (text.back() == ' ' || text.back() == '\0')) {
        text.remove_suffix(1);
    }
    if (text == "flt" && size == 4) {
        return Form::floating;
    }
    if (isFixedPoint(text) && size == 2) {
        return Form::fixedPoint;
    }
    return text == "ui16" && size == 2 ? Form::word : Form::other;
}

bool satisfies(Form form, Wants wants) {
    switch (wants) {
        case Wants::anything:
            return true;
        case Wants::number:
            return form == Form::floating || form == Form::fixedPoint;
        case Wants::floating:
            return form == Form::floating;
        case Wants::fixedPoint:
            return form == Form::fixedPoint;
        case Wants::fanSpeed:
            return form != Form::other;
    }
    return false;
}

// What controllers hold where no sensor answers: the edge of a signed fixed-point range, in
// whatever unit (-127 °C, -31.75 A, -127 W).
constexpr std::array<std::uint8_t, 2> kNoSensorHighBytes{0x80, 0x81};

// Apple Silicon: cores, graphics and other blocks, then the corners, the mean and the largest of
// the processor's dies. "TCHP" is the charger.
constexpr std::string_view kChipSensors = "T[egmps]** TC[0123456789AMD]*";

// What the firmware shows for all sensors of a block that is switched off.
constexpr double kOffSubstituteCelsius = 40.0;
// Each sensor is corrected by an offset of its own, -9 to 8.5, and a core that is off or absent
// reads the bare offset. One that runs is warmer than that in any room.
constexpr double kLargestOffsetCelsius = 10.0;

// By how much the board's correction lowers the ambient sensor of some desktop machines.
constexpr std::string_view kAmbientSensors = "TA**";
constexpr double kAmbientCorrectionCelsius = 20.0;

// Intel graphics. A processor of its own that nobody uses is off and reads exactly 0.
constexpr std::string_view kGraphicsSensors = "TG**";

bool isSigned(std::uint32_t type) {
    return type >> 24 == 's';
}

// Where a signed fixed-point type has its lower edge, nothing answers.
bool isAtEdge(const FVValue& value) {
    return formOf(value.data_type, value.data_size) == Form::fixedPoint &&
           isSigned(value.data_type) && value.data[1] == 0 &&
           std::ranges::count(kNoSensorHighBytes, value.data[0]) > 0;
}

struct NamedKey {
    std::string_view key;
    std::string_view name;
};

// Keys that mean the same on every machine that has them.
constexpr NamedKey kNamedKeys[] = {
    {"PSTR", "整机功耗"},       {"PDTR", "直流输入功耗"},   {"PPBR", "电池输出功耗"},
    {"PCPC", "处理器功耗"},     {"PCPT", "处理器功耗"},     {"PCTR", "处理器功耗"},
    {"PCPR", "处理器功耗"},     {"PG0C", "图形处理器功耗"}, {"PG0R", "图形处理器功耗"},
    {"PG1R", "图形处理器功耗"}, {"PMTR", "内存功耗"},       {"VD0R", "直流输入电压"},
    {"ID0R", "直流输入电流"},   {"IBAC", "电池电流"},
};

std::string_view nameOf(std::string_view key, Kind kind) {
    const auto* named = std::find_if(std::begin(kNamedKeys), std::end(kNamedKeys),
                                     [&](const NamedKey& entry) { return entry.key == key; });
    if (named != std::end(kNamedKeys)) {
        return named->name;
    }
    switch (kind) {
        case Kind::power:
            return "功耗";
        case Kind::voltage:
            return "电压";
        case Kind::current:
            return "电流";
        case Kind::temperature:
            return rawValue(sensorCategory(key));
        case Kind::fan:
            return "风扇";
    }
    return {};
}

}  // namespace

std::optional<HardwareSensorKind> smcKind(std::string_view key, std::uint32_t type,
                                          std::uint32_t size) {
    const Form form = formOf(type, size);
    for (const Rule& rule : kRules) {
        if (satisfies(form, rule.wants) && matchesAny(rule.names, key)) {
            return rule.kind;
        }
    }
    return std::nullopt;
}

bool mayBeSensor(std::string_view key) {
    for (const Rule& rule : kRules) {
        // A rule that excludes some forms only leaves the others to the rules after it.
        if ((rule.kind || rule.wants == Wants::anything) && matchesAny(rule.names, key)) {
            return rule.kind.has_value();
        }
    }
    return false;
}

bool valid(HardwareSensorKind kind, double value) {
    // Comparisons with NaN are false; every kind is bounded, so no infinity passes.
    switch (kind) {
        case Kind::fan:
            return value >= 0 && value <= 20000;
        case Kind::temperature:
            return value > 0 && value < 130;
        case Kind::power:
            return std::fabs(value) <= 10000;
        case Kind::voltage:
            return value >= 0 && value <= 1000;
        case Kind::current:
            return std::fabs(value) <= 1000;
    }
    return false;
}

bool onChip(std::string_view key) {
    return matchesAny(kChipSensors, key);
}

bool mayStandForOff(double celsius) {
    return celsius == kOffSubstituteCelsius || celsius <= kLargestOffsetCelsius;
}

bool worthListing(std::string_view key, HardwareSensorKind kind, const FVValue& value,
                  bool appleSilicon) {
    const double number = fv_decode(&value);
    const bool isOff = appleSilicon ? onChip(key) && std::fabs(number) <= kLargestOffsetCelsius
                                    : matchesPattern(kGraphicsSensors, key) && number == 0;
    return isOff || (valid(kind, number) && !isAtEdge(value));
}

std::string upperCaseTwin(std::string_view key) {
    if (!matchesPattern("T**_", key)) {
        return {};
    }
    std::string twin(key);
    twin.back() = static_cast<char>(twin.back() - 'a' + 'A');
    return twin;
}

bool repeats(std::string_view key, const FVValue& value, const FVValue& twin) {
    if (formOf(value.data_type, value.data_size) != Form::fixedPoint ||
        formOf(twin.data_type, twin.data_size) != Form::fixedPoint) {
        return false;
    }
    if (isAtEdge(twin)) {
        return true;
    }
    const double twinCelsius = fv_decode(&twin);
    const double difference = std::fabs(fv_decode(&value) - twinCelsius);
    // Below zero it is no temperature but a distance to a limit, which repeats nothing.
    return valid(Kind::temperature, twinCelsius) &&
           (difference == 0 ||
            (difference == kAmbientCorrectionCelsius && matchesPattern(kAmbientSensors, key)));
}

std::string label(std::string_view key, HardwareSensorKind kind) {
    if (kind == Kind::fan) {
        // "F0Ac": users count fans from 1.
        return std::string(nameOf(key, kind)).append(" ").append(std::to_string(key[1] - '0' + 1));
    }
    const auto core = std::find(kCoreKeys.begin(), kCoreKeys.end(), key);
    if (core != kCoreKeys.end()) {
        return "CPU core sensor " + std::to_string(core - kCoreKeys.begin());
    }
    return std::string(nameOf(key, kind)).append(" · ").append(key);
}

}  // namespace ferovane::SensorInventory
