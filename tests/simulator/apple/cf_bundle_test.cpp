#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "simulator/apple/live_objects.h"
#include "tests/simulator/apple/fake_attached_machine.h"
#include "tests/simulator/apple/temporary_directory.h"

namespace {

// Nothing when the bundle cannot be opened, an empty text when it has no identifier.
std::optional<std::string> identifierAt(const std::string& path) {
    const CFURLRef url = CFURLCreateFromFileSystemRepresentation(
        nullptr, reinterpret_cast<const UInt8*>(path.data()), static_cast<CFIndex>(path.size()), 1);
    const CFBundleRef bundle = CFBundleCreate(nullptr, url);
    CFRelease(url);
    if (bundle == nullptr) {
        return std::nullopt;
    }
    std::string text;
    if (const CFStringRef identifier = CFBundleGetIdentifier(bundle)) {
        char buffer[100];
        EXPECT_NE(CFStringGetCString(identifier, buffer, sizeof buffer, kCFStringEncodingUTF8), 0);
        text = buffer;
    }
    CFRelease(bundle);
    return text;
}

constexpr std::string_view kPropertyList = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
    <!-- <key>CFBundleIdentifier</key><string>com.example.comment</string> -->
    <key>Plug-in</key>
    <dict>
        <key>CFBundleIdentifier</key>
        <string>com.example.nested</string>
    </dict>
    <key>LSBackgroundOnly</key>
    <true/>
    <key>CFBundleIdentifier</key>
    <string>com.example.fans&amp;more</string>
</dict>
</plist>
)";

TEST(BundleTest, IsLookedUpBelowTheMachinesRoot) {
    const std::int64_t liveAtStart = simulator::liveObjects();
    const TemporaryDirectory root;
    root.write("Applications/Fans.app/Contents/Info.plist", kPropertyList);
    root.write("Applications/Binary.app/Contents/Info.plist", "bplist00\xD1\x01\x02");
    root.write("Applications/Typed.app/Contents/Info.plist",
               "<plist><dict><key>CFBundleIdentifier</key><integer>1</integer></dict></plist>");
    root.write("Applications/Cut.app/Contents/Info.plist",
               kPropertyList.substr(0, kPropertyList.rfind("<string>") + 5));
    root.write("Applications/File.app", "no directory");

    EXPECT_EQ(identifierAt("/Applications/Fans.app"), std::nullopt);
    EXPECT_EQ(identifierAt(root.path() / "Applications/Fans.app"), "com.example.fans&more");
    FakeAttachedMachine machine;
    machine.directory = root.path();
    EXPECT_EQ(identifierAt("/Applications/Fans.app"), "com.example.fans&more");
    EXPECT_EQ(identifierAt("/Applications/Binary.app"), "");
    EXPECT_EQ(identifierAt("/Applications/Typed.app"), "");
    EXPECT_EQ(identifierAt("/Applications/Cut.app"), "");
    EXPECT_EQ(identifierAt("/Applications/File.app"), std::nullopt);
    EXPECT_EQ(identifierAt("/Applications/Missing.app"), std::nullopt);
    EXPECT_EQ(simulator::liveObjects(), liveAtStart);
}

}  // namespace
