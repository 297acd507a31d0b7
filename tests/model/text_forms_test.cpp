// Identifiers, base64 and UTF-8: texts that come from outside.
#include <gtest/gtest.h>

#include <set>

#include "core/model/base64.h"
#include "core/model/utf8.h"
#include "core/model/uuid.h"

namespace ferovane {
namespace {

TEST(UuidTest, ReadsEitherCaseAndWritesUpperCase) {
    const auto uuid = Uuid::parse("0123abcd-EF45-6789-aBcD-ef0123456789");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->text(), "0123ABCD-EF45-6789-ABCD-EF0123456789");
    EXPECT_EQ(uuid->bytes[0], 0x01);
    EXPECT_EQ(uuid->bytes[15], 0x89);
}

TEST(UuidTest, RefusesEveryOtherShape) {
    for (const char* text :
         {"", "0123abcdef456789abcdef0123456789", "{0123abcd-ef45-6789-abcd-ef0123456789}",
          "0123abcd-ef45-6789-abcd-ef012345678", "0123abcd-ef45-6789-abcd-ef01234567890",
          "0123abcg-ef45-6789-abcd-ef0123456789", "0123abcd ef45-6789-abcd-ef0123456789",
          "0123abcde-f45-6789-abcd-ef0123456789", "0123abcd-ef45-6789-abcd-ef012345678\n",
          " 123abcd-ef45-6789-abcd-ef0123456789", "-0123abcd-ef45-6789-abcdef0123456789"}) {
        EXPECT_EQ(Uuid::parse(text), std::nullopt) << text;
    }
}

TEST(UuidTest, RandomOnesAreVersionFourAndDiffer) {
    std::set<std::string> seen;
    for (int i = 0; i < 200; ++i) {
        const std::string text = Uuid::random().text();
        EXPECT_EQ(text[14], '4');
        EXPECT_NE(std::string_view("89AB").find(text[19]), std::string_view::npos);
        EXPECT_TRUE(seen.insert(text).second);
        EXPECT_EQ(Uuid::parse(text)->text(), text);
    }
}

TEST(Base64Test, ReadsWhatAnEncoderWrites) {
    using namespace std::string_literals;
    EXPECT_EQ(decodeBase64(""), "");
    EXPECT_EQ(decodeBase64("TQ=="), "M");
    EXPECT_EQ(decodeBase64("TWE="), "Ma");
    EXPECT_EQ(decodeBase64("TWFu"), "Man");
    EXPECT_EQ(decodeBase64("AAECAw=="), "\0\1\2\3"s);
    EXPECT_EQ(decodeBase64("+/+/"), "\xFB\xFF\xBF");
    EXPECT_EQ(decodeBase64("5puy57q/"), "曲线");
}

TEST(Base64Test, RefusesEverythingElse) {
    for (const char* text : {"T",      "TQ",       "TQ=",     "TQ===", "====",  "=",       "T===",
                             "TWFuTQ", "TQ==TWFu", "T=Fu",    "TW=u",  "TW Fu", " TWFu",   "TWFu\n",
                             "TWF-",   "TWF_",     "TWF\xC3", "TR==",  "TWF=",  "TWFu===="}) {
        EXPECT_EQ(decodeBase64(text), std::nullopt) << text;
    }
}

TEST(Utf8Test, FindsAndRepairsIllFormedSequences) {
    const struct {
        const char* text;
        std::optional<std::size_t> invalidAt;
        const char* repaired;
    } cases[] = {
        {"", {}, ""},
        {"plain ASCII, more than eight bytes of it",
         {},
         "plain ASCII, more than eight bytes of it"},
        {"\u00e9\u98ce\U0001F600", {}, "\u00e9\u98ce\U0001F600"},
        {"\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
         {},
         "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xF0\x90\x80\x80\xF4\x8F\xBF"
         "\xBF"},
        {"a\x80z", 1, "a\uFFFDz"},
        {"12345678\xFF", 8, "12345678\uFFFD"},
        {"\xC0\xAF", 0, "\uFFFD\uFFFD"},  // overlong "/"
        {"\xC1\xBF", 0, "\uFFFD\uFFFD"},
        {"\xE0\x9F\xBF", 0, "\uFFFD\uFFFD\uFFFD"},  // overlong
        {"\xED\xA0\x80", 0, "\uFFFD\uFFFD\uFFFD"},  // surrogate
        {"\xF0\x8F\xBF\xBF", 0, "\uFFFD\uFFFD\uFFFD\uFFFD"},
        {"\xF4\x90\x80\x80", 0, "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
        {"\xF5\x80", 0, "\uFFFD\uFFFD"},
        {"\xE9\xA3", 0, "\uFFFD"},  // cut short: one replacement
        {"\xF0\x9F\x98z", 0, "\uFFFDz"},
        {"\xE9\xA3\xE9\xA3\x8E", 0, "\uFFFD\u98ce"},
        {"\xC3", 0, "\uFFFD"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(firstInvalidUtf8(c.text), c.invalidAt) << c.repaired;
        EXPECT_EQ(repairUtf8(c.text), c.repaired);
    }
}

TEST(Utf8Test, CutsBetweenCharacters) {
    EXPECT_EQ(utf8Prefix("风扇", 6), "风扇");
    EXPECT_EQ(utf8Prefix("风扇", 5), "风");
    EXPECT_EQ(utf8Prefix("风扇", 3), "风");
    EXPECT_EQ(utf8Prefix("风扇", 2), "");
    EXPECT_EQ(utf8Prefix("ab", 0), "");
    EXPECT_EQ(utf8Prefix("a\U0001F600", 4), "a");
}

}  // namespace
}  // namespace ferovane
