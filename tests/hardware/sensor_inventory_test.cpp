#include "core/hardware/sensor_inventory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace ferovane {
namespace {

using Kind = HardwareSensorKind;
using SensorInventory::mayBeSensor;
using SensorInventory::smcKind;

std::uint32_t code(std::string_view type) {
    std::uint32_t packed = 0;
    for (const char c : type) {
        packed = packed << 8 | static_cast<unsigned char>(c);
    }
    return packed;
}

FVValue value(std::string_view type, std::vector<std::uint8_t> bytes) {
    FVValue value{};
    value.data_type = code(type);
    value.data_size = static_cast<std::uint32_t>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), value.data);
    return value;
}

FVValue floatValue(float number) {
    FVValue encoded = value("flt ", {0, 0, 0, 0});
    EXPECT_EQ(fv_encode(&encoded, static_cast<double>(number)), 0);
    return encoded;
}

// What the key is as a float and as a signed fixed-point number.
struct Kinds {
    std::optional<Kind> floating, fixed;
};
Kinds kinds(std::string_view key) {
    return {smcKind(key, code("flt "), 4), smcKind(key, code("sp78"), 2)};
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

TEST(SensorInventoryTest, NeverTakesTheseForSensors) {
    // Limits, set points, trends, relative values, filter terms, alarms, flags.
    const std::string never =
        "TC0G TN1G TCPG THTG TCAG TCBG TG0T TC0T TG0J TH0J TC0J TJ4T TH0T TH1F TH0F TH0R TH0O "
        "TCTD TGDT TCXR TCXr TTF0 TMBS TFPR TC0L TCMe TCMt TCXe TsTP TsFD TsFS TsWS TsCH TsHS TsTH "
        "TsOP TM0o TS1o Tp0o "
        "FNum F0Mn F0Mx F0Tg F0Sf F0Md F0md F0Dc F0AB F0AH F0ID FPDc FOn0 FlU7 FAC0 FxAc F0ac F0A? "
        "PfCP PDTx PTPc PM0r PM0f PZ0E PZ3T PZ0S PZFE PZSE PTHC PTHI PSHC PFHC PCPL PDCC PD0D PD0J "
        "PD0K PH0F PH1F VD0r VP0u VP0d IC0c IPBd IPBu ID2A ID2J ID2X ID2T ID2L ID2Q ID2S IDTA "
        "IC0X ICTX IG1X IPBT "
        "SBAV B0AV B0TE A0AC LSOF MSSN #KEY $Adr RPlt tC0P pSTR";
    for (const auto& key : words(never)) {
        EXPECT_EQ(kinds(key).floating, std::nullopt) << key;
        EXPECT_EQ(kinds(key).fixed, std::nullopt) << key;
        EXPECT_FALSE(mayBeSensor(key)) << key << " need not be read to know that";
    }
    for (const std::string_view key : {"", "T", "TC0", "TC0PX", "TC0\xC3",
                                       "T\x01"
                                       "0P",
                                       "\xE6\x96\x87T"}) {
        EXPECT_EQ(kinds(key).floating, std::nullopt) << key;
        EXPECT_FALSE(mayBeSensor(key)) << key;
    }
}

TEST(SensorInventoryTest, KeepsWhatIsMeasured) {
    const struct {
        Kind kind;
        std::string keys;
    } cases[] = {
        {Kind::fan, "F0Ac F9Ac"},
        {Kind::temperature,
         "TC0P TC0C TC8C TCXC TCGC TCSA TCMb TCMz TB0T TB1T TA0P TA0V TA0p TW0P TH0A TH0x TH0V "
         "TH1a TG0P TG0D TGDD TN0P TM0P TPCD TPMP Ts0P Ts1S Th1H Tp09 Te05 Tg0K Tm0p TaLP TaRF "
         "TS0V"},
        {Kind::power, "PSTR PDTR PPBR PC0R PCPC PG0R PHPC PZ0F PZ1G PH0R PD0R PTIR PHDC"},
        {Kind::voltage, "VD0R VP0R VC0C VAIR VBLC"},
        {Kind::current, "IC0R ID0R IPBR IBAC IG0R ID2R ID2F IDTR ID0S IGXC IPB1"},
    };
    for (const auto& c : cases) {
        for (const auto& key : words(c.keys)) {
            EXPECT_EQ(kinds(key).floating, c.kind) << key;
            EXPECT_EQ(kinds(key).fixed, c.kind) << key;
            EXPECT_TRUE(mayBeSensor(key)) << key;
        }
    }
}

TEST(SensorInventoryTest, SameNameMeansOtherThingsInOtherTypes) {
    // Real on Apple Silicon (float), a set point on Intel (fixed point) …
    EXPECT_EQ(kinds("Ts0G").floating, Kind::temperature);
    EXPECT_EQ(kinds("Ts0G").fixed, std::nullopt);
    EXPECT_EQ(kinds("TF2S").floating, Kind::temperature);
    EXPECT_EQ(kinds("TF0S").fixed, std::nullopt);
    // … and the other way round.
    for (const std::string_view key : {"TVMr", "TVD0", "Tf06", "Tz11", "Ta05", "Ta0P"}) {
        EXPECT_EQ(kinds(key).floating, std::nullopt) << key;
        EXPECT_EQ(kinds(key).fixed, Kind::temperature) << key;
        EXPECT_TRUE(mayBeSensor(key)) << key;
    }
}

TEST(SensorInventoryTest, OnlyNumericFormsAreSensors) {
    struct Case {
        std::string_view key, type;
        std::uint32_t size;
        std::optional<Kind> kind;
    };
    using namespace std::string_view_literals;
    const Case cases[] = {
        {"TC0P", "sp78", 2, Kind::temperature}, {"TC0P", "fp88", 2, Kind::temperature},
        {"TC0P", "fp79", 2, Kind::temperature}, {"TC0P", "spf0", 2, Kind::temperature},
        {"TC0P", "flt ", 4, Kind::temperature}, {"TC0P", "flt\0"sv, 4, Kind::temperature},
        {"TC0P", "flt ", 2, std::nullopt},      {"TC0P", "sp78", 4, std::nullopt},
        {"TC0P", "sp79", 2, std::nullopt},      {"TC0P", "fp78", 2, std::nullopt},
        {"TC0P", "sp7G", 2, std::nullopt},      {"TC0P", "spF0", 2, std::nullopt},
        {"TC0P", "xp88", 2, std::nullopt},      {"TC0P", "ui16", 2, std::nullopt},
        {"TC0P", "ui8 ", 1, std::nullopt},      {"TC0P", "flag", 1, std::nullopt},
        {"TC0P", "hex_", 2, std::nullopt},      {"TC0P", "    ", 4, std::nullopt},
        {"TR0Z", "ioft", 8, std::nullopt},  // on Apple Silicon a constant 51.8
        {"TG0B", "ioft", 8, std::nullopt},  // the battery gauge
        {"IC0r", "ui16", 2, std::nullopt},      {"PSTR", "ui16", 2, std::nullopt},
        {"F0Ac", "fpe2", 2, Kind::fan},         {"F0Ac", "ui16", 2, Kind::fan},
        {"F0Ac", "ui16", 4, std::nullopt},      {"F0Ac", "ui8 ", 1, std::nullopt},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(smcKind(c.key, code(c.type), c.size), c.kind)
            << c.key << " " << c.type << "/" << c.size;
    }
}

TEST(SensorInventoryTest, RangesOfTheKinds) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const struct {
        Kind kind;
        std::vector<double> inside, outside;
    } cases[] = {
        {Kind::fan, {0, 20000}, {-0.5, 20000.5}},
        {Kind::temperature, {0.001, 129.9}, {0, -127, 130, 1000}},
        {Kind::power, {-10000, 0, 10000}, {-10000.5, 10000.5}},
        {Kind::voltage, {0, 1000}, {-0.001, 1000.5}},
        {Kind::current, {-1000, 0, 1000}, {-1000.5, 1000.5}},
    };
    for (const auto& c : cases) {
        for (const double inside : c.inside) {
            EXPECT_TRUE(SensorInventory::valid(c.kind, inside)) << inside;
        }
        for (const double outside : c.outside) {
            EXPECT_FALSE(SensorInventory::valid(c.kind, outside)) << outside;
        }
        for (const double never : {kNaN, kInfinity, -kInfinity}) {
            EXPECT_FALSE(SensorInventory::valid(c.kind, never)) << rawValue(c.kind);
        }
    }
}

TEST(SensorInventoryTest, KnowsWhatStandsForNoSensor) {
    const struct {
        Kind kind;
        std::string_view key;
        FVValue value;
        bool noSensor;
    } cases[] = {
        {Kind::temperature, "TC0P", value("sp78", {0x7F, 0x00}), true},   // 127
        {Kind::temperature, "TC0P", value("sp78", {0x7F, 0x01}), false},  // a hair above
        {Kind::temperature, "TC0P", value("sp78", {0x7E, 0xFF}), false},
        {Kind::temperature, "TC0P", value("fp88", {0x80, 0x00}), true},  // 128
        {Kind::temperature, "TC0P", value("fp88", {0x81, 0x00}), true},  // 129
        {Kind::temperature, "TC0P", value("fp88", {0x81, 0x01}), false},
        {Kind::temperature, "TCMz", floatValue(127), true},
        {Kind::temperature, "TCMz", floatValue(112.1F), false},
        {Kind::power, "PZAP", value("sp78", {0x81, 0x00}), true},     // -127 W
        {Kind::current, "IZAP", value("sp5a", {0x81, 0x00}), true},   // -31.75 A
        {Kind::current, "IZAP", value("sp5a", {0x80, 0x00}), true},   // -32 A
        {Kind::current, "IBAC", value("sp5a", {0x81, 0x01}), false},  // a large but real current
        {Kind::power, "PDTR", value("fp88", {0x81, 0x00}), false},    // unsigned: really 129 W
        {Kind::power, "PSTR", floatValue(127), false},
        {Kind::fan, "F0Ac", value("fpe2", {0x80, 0x00}), false},  // 8192 rpm
        // A core that is off shows the offset of its sensor; one that runs does not get that cold.
        {Kind::temperature, "Tp1j", floatValue(2.2F), true},
        {Kind::temperature, "Ta1z", floatValue(9.4F), false},
        {Kind::temperature, "Tp09", floatValue(10), true},
        {Kind::temperature, "Tp09", floatValue(10.5F), false},
        {Kind::temperature, "Tp09", floatValue(40), false},
        {Kind::temperature, "TaLP", floatValue(8), false},          // the room may be cold
        {Kind::temperature, "TA0P", value("sp78", {8, 0}), false},  // Intel: ambient
        {Kind::temperature, "Tp2F", value("sp78", {8, 0}), false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SensorInventory::standsForNoSensor(c.kind, c.key, c.value), c.noSensor)
            << c.key << " = " << fv_decode(&c.value);
    }
}

TEST(SensorInventoryTest, LabelsForUsers) {
    EXPECT_EQ(SensorInventory::label("F0Ac", Kind::fan), "风扇 1");
    EXPECT_EQ(SensorInventory::label("F9Ac", Kind::fan), "风扇 10");
    EXPECT_EQ(SensorInventory::label("TC0C", Kind::temperature), "CPU core sensor 0");
    EXPECT_EQ(SensorInventory::label("TC9C", Kind::temperature), "CPU core sensor 9");
    EXPECT_EQ(SensorInventory::label("TC0P", Kind::temperature), "CPU · TC0P");
    EXPECT_EQ(SensorInventory::label("TG0P", Kind::temperature), "GPU · TG0P");
    EXPECT_EQ(SensorInventory::label("TH0x", Kind::temperature), "存储 · TH0x");
    EXPECT_EQ(SensorInventory::label("TB0T", Kind::temperature), "电池 · TB0T");
    EXPECT_EQ(SensorInventory::label("Tp09", Kind::temperature), "其他 · Tp09");
    EXPECT_EQ(SensorInventory::label("PSTR", Kind::power), "整机功耗 · PSTR");
    EXPECT_EQ(SensorInventory::label("PZ0F", Kind::power), "功耗 · PZ0F");
    EXPECT_EQ(SensorInventory::label("VD0R", Kind::voltage), "直流输入电压 · VD0R");
    EXPECT_EQ(SensorInventory::label("VC0C", Kind::voltage), "电压 · VC0C");
    EXPECT_EQ(SensorInventory::label("IC0R", Kind::current), "电流 · IC0R");
}

}  // namespace
}  // namespace ferovane
