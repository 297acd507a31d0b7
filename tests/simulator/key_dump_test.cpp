#include "simulator/machine/key_dump.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/happenings.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace simulator;

const std::string kHeader = "key,type,size,attributes,bytes,result\n";

std::string problemIn(const std::string& csv) {
    try {
        parseKeyDump(csv);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

TEST(KeyDumpTest, ReadsWhatDumpsOfRealMachinesHold) {
    const auto keys =
        parseKeyDump("\xEF\xBB\xBF" + std::string("key,type,size,attributes,bytes,result\r\n") +
                     "F0Ac,fpe2,2,90,21B4,00\r\n"
                     "\n"
                     "zCRS,ui8\\0,1,11,NOT READABLE,00\n"
                     "ACKG,hex_,118,54,,FF\n"
                     "FPhz,flag,1,50,,85\n"
                     "TB0T,flt ,4,,30330342,00\n"
                     "a,,b,ui8,1,C0,07,00\n"
                     "FS!,ui16,2,C0,0000,00\n"
                     ",\\0,,,ui8,1,C0,07,00");
    ASSERT_EQ(keys.size(), 8U);
    EXPECT_EQ(keys[0].bytes, (std::vector<std::uint8_t>{0x21, 0xB4}));
    EXPECT_EQ(keys[1].readResult, kNotReadable);
    EXPECT_EQ(keys[1].type, packed(std::string_view("ui8\0", 4)));
    EXPECT_EQ(keys[2].readResult, 0xFF);
    EXPECT_EQ(keys[2].size, 118U);
    EXPECT_EQ(keys[4].attributes, kAttributeRead);
    EXPECT_EQ(unpacked(keys[5].code), "a,,b");
    EXPECT_EQ(unpacked(keys[6].code), "FS! ");
    EXPECT_EQ(unpacked(keys[7].code), std::string(",\0,,", 4));
}

TEST(KeyDumpTest, NamesLineAndFieldOfAMistake) {
    struct {
        const char* lines;
        const char* problem;
    } const cases[] = {
        {"F0Ac,fpe2,2,90,21B4", "line 2, field \"key\": a line has six fields"},
        {"TC0P,sp78,2,90,2100,00\nF0Ac1,fpe2,2,90,21B4,00", "line 3, field \"key\": \"F0Ac1\""},
        {",fpe2,2,90,21B4,00", "line 2, field \"key\": missing"},
        {",\\0,,ui8,1,C0,07,00", "line 2, field \"key\": missing"},  // three characters, not four
        {"F0Ac,fpe2,two,90,21B4,00", "line 2, field \"size\": \"two\" is not a decimal"},
        {"F0Ac,fpe2,99999,90,,85", "line 2, field \"size\""},
        {"F0Ac,fpe2,2,90,21B,00", "line 2, field \"bytes\": \"21B\" has half a byte"},
        {"F0Ac,fpe2,2,90,21,00", "line 2, field \"bytes\": 1 bytes, but the size is 2"},
        {"F0Ac,fpe2,2,90,21B4,00\n\nF0Ac,fpe2,2,90,21B4,00",
         "line 4, field \"key\": \"F0Ac\" stands already in line 2"},
        {"", "no keys"},
    };
    for (const auto& wanted : cases) {
        const std::string problem = problemIn(kHeader + wanted.lines);
        EXPECT_NE(problem.find(wanted.problem), std::string::npos)
            << wanted.lines << "\n-> " << problem;
    }
    EXPECT_NE(problemIn("key,type\n").find("line 1: the header is \"key,type\""),
              std::string::npos);
    EXPECT_NE(problemIn("").find("line 1"), std::string::npos);
}

std::string dumpWith(const std::string& rows) {
    return kHeader +
           "#KEY,ui32,4,80,00000020,00\n"
           "F0Mn,fpe2,2,C0,1F40,00\n"
           "F0Mx,fpe2,2,C0,60E0,00\n"
           "FNum,ui8,1,80,01,00\n"
           "TC0P,sp78,2,80,3200,00\n" +
           rows;
}

TEST(KeyDumpTest, MakesAMachineOfAnybodysController) {
    SimulatedMac mac = macFromKeyDump(
        dumpWith("F0Ac,fpe2,2,90,1F40,00\nF0Tg,fpe2,2,D0,1F40,00\nFS! ,ui16,2,C0,0000,00\n"));
    EXPECT_EQ(mac.fanCount(), 1);
    EXPECT_EQ(mac.number("#KEY"), 32) << "as in the dump, which left most of them out";
    EXPECT_EQ(mac.keyCount(), 8U);
    mac.addTemperatureKeys(1);
    EXPECT_EQ(mac.number("#KEY"), 33);
    EXPECT_TRUE(mac.allFansAutomatic());
    mac.set(Property::kLoad, 100);
    mac.advance(60);
    EXPECT_GT(*mac.number("TC0P"), 60);
    EXPECT_GT(mac.fanRpm(0), 2100);
}

TEST(KeyDumpTest, AFanThatSomebodyHoldsInTheDumpIsManual) {
    const std::string held = "F0Ac,fpe2,2,90,2EE0,00\nF0Tg,fpe2,2,D0,2EE0,00\n";
    for (const char* row : {"FS! ,ui16,2,C0,0001,00\n", "F0Md,ui8,1,C0,01,00\n"}) {
        SimulatedMac mac = macFromKeyDump(dumpWith(held + row));
        EXPECT_TRUE(mac.fanManual(0)) << row;
        EXPECT_FALSE(mac.allFansAutomatic());
        mac.advance(600);
        EXPECT_EQ(mac.fanTarget(0), 3000);
        mac.otherReleasesFan(0);
        mac.advance(600);
        EXPECT_TRUE(mac.allFansAutomatic());
        EXPECT_EQ(mac.fanTarget(0), 2000);
    }
}

}  // namespace
