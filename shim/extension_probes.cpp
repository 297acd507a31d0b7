#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/kext/KextManager.h>

#include <cstring>

#include "shim/cf_values.h"
#include "shim/fv.h"
#include "shim/owned_ref.h"

using ferovane::shim::OwnedRef;

namespace {

OwnedRef<CFArrayRef> arrayOfOne(CFStringRef element) {
    const void* elements[] = {element};
    return OwnedRef<CFArrayRef>(
        CFArrayCreate(kCFAllocatorDefault, elements, 1, &kCFTypeArrayCallBacks));
}

OwnedRef<CFURLRef> directoryUrl(const char* path) {
    return OwnedRef<CFURLRef>(CFURLCreateFromFileSystemRepresentation(
        kCFAllocatorDefault, reinterpret_cast<const UInt8*>(path),
        static_cast<CFIndex>(std::strlen(path)), true));
}

}  // namespace

int fv_turbo_driver_state(void) {
    const CFStringRef turboDriver = CFSTR("com.vorandel.DisableTurboBoost");
    const OwnedRef<CFArrayRef> identifiers = arrayOfOne(turboDriver);
    // Asking for one short property keeps the answer small; which one does not matter.
    const OwnedRef<CFArrayRef> properties = arrayOfOne(CFSTR("CFBundleIdentifier"));
    if (!identifiers || !properties) {
        return -1;
    }
    const OwnedRef<CFDictionaryRef> loaded(
        KextManagerCopyLoadedKextInfo(identifiers.get(), properties.get()));
    if (!loaded) {
        return -1;
    }
    return CFDictionaryContainsKey(loaded.get(), turboDriver) != 0 ? 1 : 0;
}

int fv_bundle_has_identifier(const char* path, const char* identifier) {
    if (path == nullptr || identifier == nullptr) {
        return 0;
    }
    const OwnedRef<CFURLRef> url = directoryUrl(path);
    const OwnedRef<CFStringRef> expected = ferovane::shim::makeString(identifier);
    if (!url || !expected) {
        return 0;
    }
    const OwnedRef<CFBundleRef> bundle(CFBundleCreate(kCFAllocatorDefault, url.get()));
    if (!bundle) {
        return 0;
    }
    return ferovane::shim::isText(CFBundleGetIdentifier(bundle.get()), expected.get()) ? 1 : 0;
}
