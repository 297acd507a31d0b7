// The stand-in CoreFoundation: it counts, it refuses misuse, and it compares by content.
#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <array>

#include "simulator/apple/live_objects.h"

namespace {

CFStringRef string(const char* text) {
    return CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8);
}

CFNumberRef number(std::int64_t value) {
    return CFNumberCreate(nullptr, kCFNumberSInt64Type, &value);
}

CFNumberRef number(double value) {
    return CFNumberCreate(nullptr, kCFNumberFloat64Type, &value);
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

TEST_F(CoreFoundationTest, DictionariesFindByEqualKeyAndKeepOneReference) {
    const CFMutableDictionaryRef values = dictionary();
    const CFStringRef key = string("CPU_Speed_Limit");
    const CFNumberRef first = number(std::int64_t{501});
    const CFNumberRef second = number(501.0);
    const CFNumberRef other = number(501.5);
    CFDictionarySetValue(values, key, first);
    CFDictionarySetValue(values, CFSTR("CPU_Speed_Limit"), second);
    EXPECT_EQ(CFGetRetainCount(first), 1) << "dropped by the replacement";
    EXPECT_EQ(CFGetRetainCount(second), 2);
    CFRelease(key);
    EXPECT_EQ(CFDictionaryGetCount(values), 1);
    EXPECT_EQ(CFDictionaryGetValue(values, CFSTR("CPU_Speed_Limit")), second);
    EXPECT_EQ(CFDictionaryGetValue(values, CFSTR("CPU_Speed_Limi")), nullptr);
    CFDictionarySetValue(values, first, kCFBooleanTrue);
    EXPECT_EQ(CFDictionaryGetValue(values, second), kCFBooleanTrue) << "numbers by value";
    EXPECT_EQ(CFDictionaryGetValue(values, other), nullptr);
    for (const CFTypeRef object : std::array<CFTypeRef, 4>{first, second, other, values}) {
        CFRelease(object);
    }
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
