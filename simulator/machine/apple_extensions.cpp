// The kernel-extension manager.
#include <IOKit/kext/KextManager.h>

#include "simulator/machine/cf_values.h"
#include "simulator/machine/machine.h"

namespace {

using namespace simulator;

constexpr char kTurboExtension[] = "com.vorandel.DisableTurboBoost";
// What every Mac has loaded, and a query for all extensions lists beside the others.
constexpr char kControllerDriver[] = "com.apple.driver.AppleSMC";

bool isAsked(CFArrayRef identifiers, const char* identifier) {
    if (identifiers == nullptr) {
        return true;
    }
    const auto name = cfString(identifier);
    for (CFIndex i = 0; i < CFArrayGetCount(identifiers); ++i) {
        if (CFEqual(CFArrayGetValueAtIndex(identifiers, i), name.get()) != 0) {
            return true;
        }
    }
    return false;
}

void addLoaded(CFMutableDictionaryRef loaded, const char* identifier) {
    auto information = cfDictionary();
    cfSet(information.get(), "CFBundleIdentifier", identifier);
    cfSet(loaded, identifier, static_cast<CFTypeRef>(information.get()));
}

}  // namespace

extern "C" CFDictionaryRef KextManagerCopyLoadedKextInfo(CFArrayRef identifiers, CFArrayRef) {
    Machine* machine = attachedMac();
    if (machine == nullptr) {
        return nullptr;
    }
    return machine->locked([identifiers](World& world) -> CFDictionaryRef {
        if (world.number(Property::kExtensionAnswers, 1) == 0) {
            return nullptr;
        }
        auto loaded = cfDictionary();
        if (isAsked(identifiers, kControllerDriver)) {
            addLoaded(loaded.get(), kControllerDriver);
        }
        if (world.number(Property::kExtensionLoaded, 0) != 0 &&
            isAsked(identifiers, kTurboExtension)) {
            addLoaded(loaded.get(), kTurboExtension);
        }
        return loaded.release();
    });
}
