#include <CoreFoundation/CFBundle.h>

#include <filesystem>
#include <functional>
#include <string>

#include "simulator/apple/cf_object.h"
#include "simulator/apple/cf_string.h"
#include "simulator/apple/host_files.h"
#include "simulator/apple/info_plist.h"
#include "simulator/apple/machine_root.h"

struct __CFURL final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kUrlTypeId;
    explicit __CFURL(std::string filePath) : Object(kTypeId), path(std::move(filePath)) {}

    bool equals(const Object& other) const override {
        return path == static_cast<const __CFURL&>(other).path;
    }
    CFHashCode hash() const override { return std::hash<std::string>{}(path); }

    const std::string path;
};

struct __CFBundle final : simulator::cf::Object {
    static constexpr simulator::cf::TypeId kTypeId = simulator::cf::kBundleTypeId;
    explicit __CFBundle(CFStringRef identifierOrNull)
        : Object(kTypeId), identifier(identifierOrNull) {}

    CFStringRef identifier;  // owned

protected:
    void dropContents() override {
        if (identifier != nullptr) {
            CFRelease(std::exchange(identifier, nullptr));
        }
    }
};

namespace {

using simulator::cf::checked;

CFStringRef readIdentifier(const std::filesystem::path& bundle) {
    const std::filesystem::path file = bundle / "Contents" / "Info.plist";
    const std::string list = simulator::readHostFile(file.c_str()).value_or("");
    const std::optional<std::string> identifier =
        simulator::propertyListString(list, "CFBundleIdentifier");
    return identifier ? simulator::cf::makeString(*identifier) : nullptr;
}

}  // namespace

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8* path,
                                                 CFIndex byteCount, Boolean) {
    if (path == nullptr || byteCount <= 0) {
        return nullptr;
    }
    return simulator::cf::make<__CFURL>(
        std::string(reinterpret_cast<const char*>(path), static_cast<std::size_t>(byteCount)));
}

CFBundleRef CFBundleCreate(CFAllocatorRef, CFURLRef url) {
    const std::filesystem::path path = simulator::pathOnHost(checked(url).path);
    std::error_code ignored;
    if (!std::filesystem::is_directory(path, ignored)) {
        return nullptr;
    }
    return simulator::cf::make<__CFBundle>(readIdentifier(path));
}

CFStringRef CFBundleGetIdentifier(CFBundleRef bundle) {
    return checked(bundle).identifier;
}
