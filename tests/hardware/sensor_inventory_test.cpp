#include "core/hardware/sensor_inventory.h"

#include <gtest/gtest.h>

#include <cmath>
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
         "TG0P TG0D TGDD TN0P TM0P TPCD TPMP Ts0P Ts1S Th1H Tp09 Te05 Tg0K Tm0p TaLP TaRF TS0V"},
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
    // "ioft" is the battery gauge and a constant 51.8 on Apple Silicon.
    for (const auto type :
         {"sp78"sv,  "fp88"sv, "fp79"sv, "spf0"sv, "sp0f"sv, "spa5"sv, "flt "sv,
          "flt\0"sv, "sp79"sv, "fp78"sv, "sp7G"sv, "spF0"sv, "spg0"sv, "sp/0"sv,
          "xp88"sv,  "sq78"sv, "ui8 "sv, "ui16"sv, "flag"sv, "    "sv, "ioft"sv}) {
        const std::string_view numbers = "sp78 fp88 fp79 spf0 sp0f spa5";
        const bool fixed = numbers.find(type) != std::string_view::npos;
        const bool floating = type.starts_with("flt");
        for (const std::uint32_t size : {1U, 2U, 4U, 8U}) {
            const bool fits = (fixed && size == 2) || (floating && size == 4);
            EXPECT_EQ(kindOf("TC0P", type, size).has_value(), fits) << type << "/" << size;
            EXPECT_EQ(kindOf("PSTR", type, size).has_value(), fits) << type << "/" << size;
            EXPECT_EQ(kindOf("F0Ac", type, size).has_value(), fits || (type == "ui16" && size == 2))
                << type << "/" << size;
        }
    }
}

TEST(SensorInventoryTest, RangesOfTheKinds) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const struct {
        Kind kind;
        double least, most, below, above;
    } cases[] = {{Kind::fan, 0, 20000, -0.5, 20000.5},
                 {Kind::temperature, 0.001, 129.9, 0, 130},
                 {Kind::power, -10000, 10000, -10000.5, 10000.5},
                 {Kind::voltage, 0, 1000, -0.001, 1000.5},
                 {Kind::current, -1000, 1000, -1000.5, 1000.5}};
    for (const auto& c : cases) {
        EXPECT_TRUE(SensorInventory::valid(c.kind, c.least)) << c.least;
        EXPECT_TRUE(SensorInventory::valid(c.kind, c.most)) << c.most;
        for (const double outside : {c.below, c.above, kInfinity, -kInfinity, std::nan("")}) {
            EXPECT_FALSE(SensorInventory::valid(c.kind, outside)) << outside;
        }
    }
    // Only a signed fixed-point type has an edge at which nothing answers.
    constexpr std::uint32_t kFp88 = 0x66703838, kSp5a = 0x73703561;
    const auto listed = [](std::uint32_t type, std::uint8_t high, std::uint8_t low) {
        return SensorInventory::worthListing("IC0R", Kind::current, {2, type, {high, low}}, false);
    };
    EXPECT_TRUE(!listed(kSp5a, 0x81, 0x00) && !listed(kSp5a, 0x80, 0x00));
    EXPECT_TRUE(listed(kSp5a, 0x81, 0x01)) << "a large but real current";
    EXPECT_TRUE(listed(kFp88, 0x81, 0x00)) << "really 129 A";
}

TEST(SensorInventoryTest, LabelsForUsers) {
    // Each key, a blank, its label.
    for (const std::string_view expected :
         {"F0Ac 风扇 1", "F9Ac 风扇 10", "TC0C CPU core sensor 0", "TC9C CPU core sensor 9",
          "TC0P CPU · TC0P", "TG0P GPU · TG0P", "TH0x 存储 · TH0x", "TB0T 电池 · TB0T",
          "Tp09 其他 · Tp09", "PSTR 整机功耗 · PSTR", "PZ0F 功耗 · PZ0F",
          "VD0R 直流输入电压 · VD0R", "VC0C 电压 · VC0C", "IC0R 电流 · IC0R"}) {
        const auto key = expected.substr(0, 4);
        EXPECT_EQ(SensorInventory::label(key, kindOf(key, "flt ", 4).value()), expected.substr(5));
    }
}

}  // namespace
}  // namespace ferovane
