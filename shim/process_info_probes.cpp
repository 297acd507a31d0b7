#include <objc/message.h>
#include <objc/runtime.h>

#include <climits>

#include "shim/fv.h"

namespace {

constexpr int kNoAnswer = -1;
constexpr long kCriticalThermalState = 3;

// The one process-information object; nobody owns it. Null when Foundation is not loaded.
id processInfo() {
    const Class type = objc_getClass("NSProcessInfo");
    if (type == nullptr) {
        return nullptr;
    }
    const auto send = reinterpret_cast<id (*)(Class, SEL)>(objc_msgSend);
    return send(type, sel_registerName("processInfo"));
}

// A selector that this system lacks would end the program, so it is asked for first.
template <class Result>
bool ask(const char* selectorName, Result& result) {
    const id info = processInfo();
    const SEL selector = sel_registerName(selectorName);
    if (info == nullptr || !class_respondsToSelector(object_getClass(info), selector)) {
        return false;
    }
    result = reinterpret_cast<Result (*)(id, SEL)>(objc_msgSend)(info, selector);
    return true;
}

}  // namespace

int fv_thermal_state(void) {
    long state = kNoAnswer;
    const bool known = ask("thermalState", state) && state >= 0 && state <= kCriticalThermalState;
    return known ? static_cast<int>(state) : kNoAnswer;
}

int fv_processor_count(void) {
    unsigned long count = 0;
    const bool known = ask("processorCount", count) && count >= 1 && count <= INT_MAX;
    return known ? static_cast<int>(count) : kNoAnswer;
}

int fv_low_power_mode(void) {
    BOOL on = 0;
    if (!ask("isLowPowerModeEnabled", on)) {
        return kNoAnswer;
    }
    return on != 0 ? 1 : 0;
}
