// The extension tool of a simulated Mac: load and unload by identifier or bundle.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "simulator/machine/machine.h"
#include "simulator/tools/machine_tool.h"

namespace simulator::tools {
namespace {

constexpr const char* kTurboExtension = "com.vorandel.DisableTurboBoost";
constexpr const char* kExtensionLibrary = "/Library/Extensions/DisableTurboBoost.kext";

// The tool's own error codes; it is not known to exit with any other status.
constexpr int kNotApproved = 27;
constexpr int kNeedsRestart = 28;
constexpr int kKernelRefused = 71;
constexpr int kNotLoaded = 1;
constexpr int kUsage = 64;

int failWith(int code, const std::string& text) {
    std::fprintf(stderr, "Error Domain=KMErrorDomain Code=%d \"%s\"", code, text.c_str());
    if (code == kNotApproved || code == kNeedsRestart) {
        std::fprintf(stderr, " UserInfo={NSLocalizedDescription=%s}", text.c_str());
    }
    std::fputs("\n", stderr);
    return code;
}

// The bundle's identifier, or "" when there is no bundle.
std::string identifierAt(const std::filesystem::path& bundle) {
    std::ifstream file(bundle / "Contents/Info.plist");
    std::ostringstream content;
    content << file.rdbuf();
    const std::string text = content.str();
    const std::size_t key = text.find("<key>CFBundleIdentifier</key>");
    const std::size_t start = key == std::string::npos ? key : text.find("<string>", key);
    const std::size_t end = start == std::string::npos ? start : text.find("</string>", start);
    return end == std::string::npos ? "" : text.substr(start + 8, end - start - 8);
}

// The extension meant by "-b IDENTIFIER" or "-p PATH".
struct Target {
    std::string identifier;
    std::string place;  // as the user named it
    bool found = false;
};

Target targetIn(MachineTool& tool) {
    const Words& words = tool.arguments();
    const std::string root = tool.mac().machine().root();
    Target target;
    target.place = words[2];
    if (words[1] == "-p") {
        target.identifier = identifierAt(root + words[2]);
        target.found = !target.identifier.empty();
    } else {
        target.identifier = words[2];
        target.found = words[2] == kTurboExtension &&
                       identifierAt(root + kExtensionLibrary) == kTurboExtension;
    }
    return target;
}

int load(MachineTool& tool, const Target& target) {
    if (!target.found) {
        return failWith(kKernelRefused,
                        "Could not find: No bundle was found at " + target.place + ".");
    }
    const auto approval = static_cast<ExtensionApproval>(
        static_cast<std::uint32_t>(tool.mac().value(Property::kExtensionApproval).value_or(0)));
    switch (approval) {
        case ExtensionApproval::kNotApproved:
            return failWith(kNotApproved, "Extension with identifiers " + target.identifier +
                                              " not approved to load. Please approve using System "
                                              "Preferences.");
        case ExtensionApproval::kRestartRequired:
            return failWith(kNeedsRestart,
                            "Loading extension(s): " + target.identifier + " requires a reboot");
        case ExtensionApproval::kNotLoadable:
            return failWith(kKernelRefused,
                            "Kernel request failed: (libkern/kext) not loadable (reason "
                            "unspecified) (-603946989)");
        case ExtensionApproval::kApproved:
            break;
    }
    if (!tool.withoutEffect() && target.identifier == kTurboExtension) {
        tool.mac().set(Property::kExtensionLoaded, 1);
    }
    return 0;
}

int unload(MachineTool& tool, const Target& target) {
    const bool loaded = target.identifier == kTurboExtension &&
                        tool.mac().value(Property::kExtensionLoaded).value_or(0) != 0;
    if (!loaded) {
        std::fprintf(stderr,
                     "(kernel) Kext %s not found for unload request.\n"
                     "Failed to unload %s - (libkern/kext) not found.\n",
                     target.identifier.c_str(), target.identifier.c_str());
        return kNotLoaded;
    }
    if (!tool.withoutEffect()) {
        tool.mac().set(Property::kExtensionLoaded, 0);
    }
    return 0;
}

int usage() {
    std::fputs("Usage: kmutil load|unload -b IDENTIFIER | -p PATH\n", stderr);
    return kUsage;
}

int act(MachineTool& tool) {
    const Words& words = tool.arguments();
    const bool named = words.size() == 3 && (words[1] == "-b" || words[1] == "-p");
    if (!named || (words[0] != "load" && words[0] != "unload")) {
        return usage();
    }
    if (!tool.privileged()) {
        std::fputs("kmutil must be run as root\n", stderr);
        return kNotLoaded;
    }
    return words[0] == "load" ? load(tool, targetIn(tool)) : unload(tool, targetIn(tool));
}

}  // namespace

int kmutil(const Words& words) {
    MachineTool tool("kmutil", words);
    return tool.finish(act(tool));
}

}  // namespace simulator::tools
