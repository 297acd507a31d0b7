#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "simulator/apple/live_objects.h"

namespace {

CFStringRef string(const char* text) {
    return CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8);
}

CFNumberRef number(std::int64_t value) {
    return CFNumberCreate(nullptr, kCFNumberSInt64Type, &value);
}

CFNumberRef number(double value) {
    return CFNumberCreate(nullptr, kCFNumberDoubleType, &value);
}

CFMutableDictionaryRef dictionary() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                     &kCFTypeDictionaryValueCallBacks);
}

// Every object a test makes is given back by its end.
class CoreFoundationTest : public testing::Test {
protected:
    ~CoreFoundationTest() override { EXPECT_EQ(simulator::liveObjects(), atStart_); }

private:
    const std::int64_t atStart_ = simulator::liveObjects();
};
using CoreFoundationDeathTest = CoreFoundationTest;

TEST_F(CoreFoundationTest, DictionaryFindsByEqualKeyAndReplacesValue) {
    const CFMutableDictionaryRef values = dictionary();
    const CFStringRef key = string("CPU_Speed_Limit");
    const CFNumberRef first = number(std::int64_t{100});
    const CFNumberRef second = number(std::int64_t{70});
    CFDictionarySetValue(values, key, first);
    CFDictionarySetValue(values, CFSTR("CPU_Speed_Limit"), second);
    EXPECT_EQ(CFGetRetainCount(first), 1);  // dropped by the replacement
    EXPECT_EQ(CFGetRetainCount(second), 2);
    CFRelease(key);

    EXPECT_EQ(CFDictionaryGetCount(values), 1);
    const CFStringRef equal = string("CPU_Speed_Limit");
    EXPECT_EQ(CFDictionaryGetValue(values, equal), second);
    EXPECT_EQ(CFDictionaryGetValue(values, CFSTR("CPU_Speed_Limi")), nullptr);
    for (const CFTypeRef object : std::array<CFTypeRef, 4>{equal, first, second, values}) {
        CFRelease(object);
    }
}

TEST_F(CoreFoundationTest, NumbersAreKeysByValueWhateverTheirType) {
    const CFMutableDictionaryRef byPid = dictionary();
    const std::int32_t pid = 501;
    const CFNumberRef key = CFNumberCreate(nullptr, kCFNumberIntType, &pid);
    const CFNumberRef wide = number(std::int64_t{501});
    const CFNumberRef floating = number(501.0);
    const CFNumberRef other = number(501.5);
    CFDictionarySetValue(byPid, key, kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(byPid, wide), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(byPid, floating), kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(byPid, other), nullptr);
    EXPECT_EQ(CFEqual(kCFBooleanTrue, kCFBooleanFalse), 0);
    for (const CFTypeRef object : std::array<CFTypeRef, 5>{key, wide, floating, other, byPid}) {
        CFRelease(object);
    }
}

TEST_F(CoreFoundationTest, WithoutCallBacksADictionaryComparesAndKeepsBarePointers) {
    const CFMutableDictionaryRef bare = CFDictionaryCreateMutable(nullptr, 0, nullptr, nullptr);
    const CFStringRef key = string("key");
    const CFStringRef equal = string("key");
    CFDictionarySetValue(bare, key, nullptr);
    EXPECT_NE(CFDictionaryContainsKey(bare, key), 0);
    EXPECT_EQ(CFDictionaryContainsKey(bare, equal), 0);
    EXPECT_EQ(CFGetRetainCount(key), 1);
    CFRelease(key);
    CFRelease(equal);
    CFRelease(bare);
}

TEST_F(CoreFoundationTest, NestedCollectionsAreEqualByContentAndReleasedTogether) {
    const auto assertions = [](double since) -> CFDictionaryRef {
        const CFMutableDictionaryRef entry = dictionary();
        const CFDateRef date = CFDateCreate(nullptr, since);
        CFDictionarySetValue(entry, CFSTR("AssertStartWhen"), date);
        CFRelease(date);
        const void* entries[] = {entry, kCFBooleanFalse};
        const CFArrayRef list = CFArrayCreate(nullptr, entries, 2, &kCFTypeArrayCallBacks);
        CFRelease(entry);
        const CFNumberRef pid = number(std::int64_t{77});
        const void* keys[] = {pid};
        const void* lists[] = {list};
        const CFDictionaryRef byPid =
            CFDictionaryCreate(nullptr, keys, lists, 1, &kCFTypeDictionaryKeyCallBacks,
                               &kCFTypeDictionaryValueCallBacks);
        CFRelease(pid);
        CFRelease(list);
        return byPid;
    };
    const CFDictionaryRef one = assertions(1000.25);
    const CFDictionaryRef same = assertions(1000.25);
    const CFDictionaryRef later = assertions(1000.5);
    EXPECT_NE(CFEqual(one, same), 0);
    EXPECT_EQ(CFEqual(one, later), 0);

    const void* list = nullptr;
    CFDictionaryGetKeysAndValues(one, nullptr, &list);
    CFRetain(list);
    CFRelease(one);
    EXPECT_EQ(CFArrayGetCount(static_cast<CFArrayRef>(list)), 2);
    EXPECT_EQ(CFGetTypeID(CFArrayGetValueAtIndex(static_cast<CFArrayRef>(list), 1)),
              CFBooleanGetTypeID());
    CFRelease(list);
    CFRelease(same);
    CFRelease(later);
}

TEST_F(CoreFoundationTest, StringsCountUnitsAndRefuseWhatDoesNotFit) {
    const CFStringRef text = string("风扇🌀");
    EXPECT_EQ(CFStringGetLength(text), 4);
    std::array<char, 11> buffer{};
    EXPECT_EQ(CFStringGetCString(text, buffer.data(), 10, kCFStringEncodingUTF8), 0);
    EXPECT_EQ(CFStringGetCString(text, buffer.data(), 11, kCFStringEncodingASCII), 0);
    EXPECT_NE(CFStringGetCString(text, buffer.data(), 11, kCFStringEncodingUTF8), 0);
    EXPECT_STREQ(buffer.data(), "风扇🌀");
    EXPECT_GE(CFStringGetMaximumSizeForEncoding(4, kCFStringEncodingUTF8), 10);
    CFRelease(text);
}

TEST_F(CoreFoundationTest, InvalidBytesMakeNoString) {
    const std::array<const char*, 8> invalid{
        "\x80",         "\xC0\x80",         "\xE0\x9F\xBF",
        "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80",
        "\xE9\xA3",     "ok\xC3("};
    for (const char* bytes : invalid) {
        EXPECT_EQ(string(bytes), nullptr) << testing::PrintToString(bytes);
    }
    EXPECT_EQ(CFStringCreateWithCString(nullptr, "\xC3\xA9", kCFStringEncodingASCII), nullptr);
}

TEST_F(CoreFoundationTest, LossyNumberConversionsAnswerZeroAndStoreAValue) {
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
    struct Case {
        CFNumberRef from;
        bool exact;
        std::int32_t stored;
    };
    const std::vector<Case> cases{{number(-1234.0), true, -1234},
                                  {number(2.75), false, 2},
                                  {number(-2.75), false, -2},
                                  {number(kNan), false, 0},
                                  {number(1e300), false, INT32_MAX},
                                  {number(-1e300), false, INT32_MIN},
                                  {number(std::int64_t{INT32_MIN}), true, INT32_MIN},
                                  {number(std::int64_t{0x1'0000'0005}), false, 5}};
    for (const Case& test : cases) {
        std::int32_t stored = -77;
        EXPECT_EQ(CFNumberGetValue(test.from, kCFNumberIntType, &stored) != 0, test.exact);
        EXPECT_EQ(stored, test.stored);
        CFRelease(test.from);
    }

    const CFNumberRef beyondDouble = number((std::int64_t{1} << 53) + 1);
    double approximate = 0;
    EXPECT_EQ(CFNumberGetValue(beyondDouble, kCFNumberDoubleType, &approximate), 0);
    EXPECT_EQ(approximate, 9007199254740992.0);
    const CFNumberRef largest = number(INT64_MAX);
    EXPECT_EQ(CFNumberGetValue(largest, kCFNumberDoubleType, &approximate), 0);
    const CFNumberRef tenth = number(0.1);
    float single = 0;
    EXPECT_EQ(CFNumberGetValue(tenth, kCFNumberFloatType, &single), 0);
    EXPECT_EQ(single, 0.1f);
    for (const CFNumberRef object : {beyondDouble, largest, tenth}) {
        CFRelease(object);
    }
}

TEST_F(CoreFoundationTest, OneConstantStringPerTextOnAllThreads) {
    constexpr int kThreads = 8;
    std::array<std::vector<CFStringRef>, kThreads> seen;
    std::vector<std::thread> threads;
    for (std::vector<CFStringRef>& mine : seen) {
        threads.emplace_back([&mine] {
            for (int i = 0; i < 200; ++i) {
                const std::string text = "constant " + std::to_string(i);
                mine.push_back(__CFStringMakeConstantString(text.c_str()));
                CFRelease(CFRetain(mine.back()));
                CFRelease(mine.back());  // never takes effect
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::vector<CFStringRef>& other : seen) {
        EXPECT_EQ(other, seen.front());
    }
    EXPECT_NE(CFEqual(seen.front().back(), CFSTR("constant 199")), 0);
}

TEST_F(CoreFoundationTest, CountsHoldWhenThreadsShareAnObject) {
    const CFNumberRef shared = number(std::int64_t{1});
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([shared] {
            for (int round = 0; round < 2000; ++round) {
                CFRetain(shared);
                CFRelease(shared);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(CFGetRetainCount(shared), 1);
    CFRelease(shared);
}

TEST_F(CoreFoundationDeathTest, MisuseEndsTheProgramWithItsReason) {
    const CFNumberRef value = number(std::int64_t{1});
    const void* reference = value;
    CFRelease(value);
    EXPECT_DEATH(CFRelease(nullptr), "CFRelease.*null");
    EXPECT_DEATH(CFRelease(reference), "CFRelease.*more often");
    EXPECT_DEATH(CFGetTypeID(reference), "CFGetTypeID.*before");
    EXPECT_DEATH(CFBooleanGetValue(static_cast<CFBooleanRef>(static_cast<const void*>(CFSTR("x")))),
                 "CFBooleanGetValue.*another type");
}

}  // namespace
