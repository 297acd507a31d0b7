#include "core/hardware/sensor_inventory.h"

#include <gtest/gtest.h>

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
using namespace std::string_view_literals;

std::optional<Kind> kindOf(std::string_view key, std::string_view type, std::uint32_t size) {
    std::uint32_t code = 0;
    for (const char c : type) {
        code = code << 8 | static_cast<unsigned char>(c);
    }
    return SensorInventory::smcKind(key, code, size);
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

TEST(SensorInventoryTest, NamesAndForms) {
    const struct {
        std::optional<Kind> floating, fixed;  // what the keys are in either form
        std::string keys;
    } cases[] = {
        // Limits, set points, trends, relative values, filter terms, alarms, flags.
        {{},
         {},
         "TC0G TN1G TCPG THTG TCAG TCBG TG0T TC0T TG0J TH0J TC0J TJ4T TH1F TH0F TH0R TH0O "
         "TCTD TGDT TCXR TCXr TTF0 TMBS TFPR TC0L TCMe TCMt TCXe TsTP TsFD TsFS TsWS TsCH "
         "TsHS TsTH TsOP FNum F0Mn F0Mx F0Tg F0Sf F0Md F0md F0Dc F0AB F0AH F0ID FPDc FOn0 "
         "FlU7 FAC0 FxAc F0ac F0A? PfCP PDTx PTPc PM0r PM0f PZ0E PZ3T PZ0S PZFE PZSE PTHC "
         "PTHI PSHC PFHC PCPL PDCC PD0D PD0J PD0K PH0F PH1F VD0r VP0u VP0d IC0c IPBd IPBu "
         "ID2A ID2J ID2X ID2T ID2L ID2Q ID2S IDTA IC0X ICTX IG1X IPBT SBAV B0AV B0TE A0AC "
         "LSOF MSSN #KEY $Adr RPlt tC0P pSTR T TC0 TC0PX TC0\xC3 T\x01"
         "0P \xE6\x96\x87T"},
        {Kind::fan, Kind::fan, "F0Ac F9Ac"},
        {Kind::temperature, Kind::temperature,
         "TC0P TC0C TC8C TCXC TCGC TCSA TCMb TCMz TB0T TA0P TA0V TA0p TW0P TH0A TH0x TH0V TH1a "
         "TG0P "
         "TG0D TGDD TN0P TM0P TPCD TPMP Ts0P Ts1S Th1H Tp09 Te05 Tg0K Tm0p TaLP TaRF TS0V"},
        {Kind::power, Kind::power,
         "PSTR PDTR PPBR PC0R PCPC PG0R PHPC PZ0F PZ1G PH0R PD0R PTIR PHDC"},
        {Kind::voltage, Kind::voltage, "VD0R VP0R VC0C VAIR VBLC"},
        {Kind::current, Kind::current, "IC0R ID0R IPBR IBAC IG0R ID2R ID2F IDTR ID0S IGXC IPB1"},
        // Real on Apple Silicon, a set point, an offset or a trend on Intel; and the other way
        // round.
        {Kind::temperature, {}, "Ts0G TF2S TH0T TM0o TS1o Tp0o Tg1o"},
        {{}, Kind::temperature, "TVMr TVD0 Tf06 Tz11 Ta05 Ta0P"},
    };
    for (const auto& c : cases) {
        for (const auto& key : words(c.keys)) {
            EXPECT_EQ(kindOf(key, "flt ", 4), c.floating) << key;
            EXPECT_EQ(kindOf(key, "sp78", 2), c.fixed) << key;
            EXPECT_EQ(SensorInventory::mayBeSensor(key), c.floating || c.fixed) << key;
        }
    }
    EXPECT_EQ(kindOf("", "flt ", 4), std::nullopt);
    EXPECT_FALSE(SensorInventory::mayBeSensor(""));
}

TEST(SensorInventoryTest, OnlyNumericFormsAreSensors) {
    const struct {
        std::string_view key, type;
        std::uint32_t size;
        std::optional<Kind> kind;
    } cases[] = {
        {"TC0P", "sp78", 2, Kind::temperature},
        {"TC0P", "fp88", 2, Kind::temperature},
        {"TC0P", "fp79", 2, Kind::temperature},
        {"TC0P", "spf0", 2, Kind::temperature},
        {"TC0P", "sp0f", 2, Kind::temperature},
        {"TC0P", "spa5", 2, Kind::temperature},
        {"TC0P", "flt ", 4, Kind::temperature},
        {"TC0P", "flt\0"sv, 4, Kind::temperature},
        {"TC0P", "flt ", 2, {}},
        {"TC0P", "sp78", 4, {}},
        {"TC0P", "sp79", 2, {}},
        {"TC0P", "fp78", 2, {}},
        {"TC0P", "sp7G", 2, {}},
        {"TC0P", "spF0", 2, {}},
        {"TC0P", "spg0", 2, {}},
        {"TC0P", "sp/0", 2, {}},
        {"TC0P", "xp88", 2, {}},
        {"TC0P", "sq78", 2, {}},
        {"TC0P", "ui8 ", 1, {}},
        {"TC0P", "ui16", 2, {}},
        {"TC0P", "flag", 1, {}},
        {"TC0P", "    ", 4, {}},
        {"TR0Z", "ioft", 8, {}},  // on Apple Silicon a constant 51.8
        {"F0Ac", "fpe2", 2, Kind::fan},
        {"F0Ac", "ui16", 2, Kind::fan},
        {"F0Ac", "ui16", 4, {}},
        {"F0Ac", "ui8 ", 1, {}},
        {"PSTR", "ui16", 2, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(kindOf(c.key, c.type, c.size), c.kind) << c.key << " " << c.type << "/" << c.size;
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

TEST(SensorInventoryTest, SentinelsInOtherForms) {
    const struct {
        Kind kind;
        std::string_view type;
        std::uint8_t high, low;
        bool listed;
    } cases[] = {
        {Kind::temperature, "fp88", 0x80, 0x00, false},  // 128
        {Kind::temperature, "fp88", 0x81, 0x00, false},  // 129: the edge read without its sign
        {Kind::temperature, "fp88", 0x81, 0x01, true},
        {Kind::power, "fp88", 0x81, 0x00, true},  // unsigned: really 129 W
        {Kind::current, "sp5a", 0x81, 0x00, false},
        {Kind::current, "sp5a", 0x80, 0x00, false},
        {Kind::current, "sp5a", 0x81, 0x01, true},  // a large but real current
        {Kind::fan, "fpe2", 0x80, 0x00, true},      // 8192 rpm
    };
    for (const auto& c : cases) {
        FVValue value{2, 0, {c.high, c.low}};
        for (const char character : c.type) {
            value.data_type = value.data_type << 8 | static_cast<unsigned char>(character);
        }
        EXPECT_EQ(SensorInventory::worthListing(c.kind, value, false), c.listed) << c.type;
    }
}

TEST(SensorInventoryTest, LabelsForUsers) {
    const struct {
        std::string_view key;
        Kind kind;
        std::string_view label;
    } cases[] = {
        {"F0Ac", Kind::fan, "风扇 1"},
        {"F9Ac", Kind::fan, "风扇 10"},
        {"TC0C", Kind::temperature, "CPU core sensor 0"},
        {"TC9C", Kind::temperature, "CPU core sensor 9"},
        {"TC0P", Kind::temperature, "CPU · TC0P"},
        {"TG0P", Kind::temperature, "GPU · TG0P"},
        {"TH0x", Kind::temperature, "存储 · TH0x"},
        {"TB0T", Kind::temperature, "电池 · TB0T"},
        {"Tp09", Kind::temperature, "其他 · Tp09"},
        {"PSTR", Kind::power, "整机功耗 · PSTR"},
        {"PZ0F", Kind::power, "功耗 · PZ0F"},
        {"VD0R", Kind::voltage, "直流输入电压 · VD0R"},
        {"VC0C", Kind::voltage, "电压 · VC0C"},
        {"IC0R", Kind::current, "电流 · IC0R"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SensorInventory::label(c.key, c.kind), c.label);
    }
}

}  // namespace
}  // namespace ferovane
