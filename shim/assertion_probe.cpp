#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "shim/cf_values.h"
#include "shim/fv.h"
#include "shim/owned_ref.h"

using ferovane::shim::OwnedRef;

namespace {

struct Visit {
    fv_assertion_visitor visitor;
    void* context;
};

const char* textOrNull(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

double startOf(CFDictionaryRef assertion) {
    const CFTypeRef date = CFDictionaryGetValue(assertion, CFSTR("AssertStartWhen"));
    if (date == nullptr || CFGetTypeID(date) != CFDateGetTypeID()) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return CFDateGetAbsoluteTime(static_cast<CFDateRef>(date));
}

void visitAssertion(std::int32_t pid, CFDictionaryRef assertion, const Visit& visit) {
    using ferovane::shim::textOf;
    const auto type = textOf(CFDictionaryGetValue(assertion, kIOPMAssertionTypeKey));
    const auto reason = textOf(CFDictionaryGetValue(assertion, kIOPMAssertionNameKey));
    const auto processName = textOf(CFDictionaryGetValue(assertion, CFSTR("Process Name")));
    const auto level =
        ferovane::shim::int64Of(CFDictionaryGetValue(assertion, kIOPMAssertionLevelKey));
    const FVPowerAssertion entry{.pid = pid,
                                 .level = level.value_or(kIOPMAssertionLevelOff),
                                 .type = textOrNull(type),
                                 .reason = textOrNull(reason),
                                 .process_name = textOrNull(processName),
                                 .since = startOf(assertion)};
    visit.visitor(visit.context, &entry);
}

void visitProcess(const void* pid, const void* assertions, const Visit& visit) {
    const std::optional<std::int32_t> number = ferovane::shim::int32Of(pid);
    const CFArrayRef list = ferovane::shim::arrayOf(assertions);
    if (!number || list == nullptr) {
        return;
    }
    for (CFIndex index = 0; index < CFArrayGetCount(list); ++index) {
        // The power service also lists placeholders that are no assertions.
        const CFTypeRef element = CFArrayGetValueAtIndex(list, index);
        if (const CFDictionaryRef assertion = ferovane::shim::dictionaryOf(element)) {
            visitAssertion(*number, assertion, visit);
        }
    }
}

}  // namespace

int fv_power_assertions(fv_assertion_visitor visitor, void* context) {
    if (visitor == nullptr) {
        return -1;
    }
    OwnedRef<CFDictionaryRef> byProcess;
    const IOReturn code = IOPMCopyAssertionsByProcess(byProcess.receive());
    if (code != kIOReturnSuccess || !byProcess) {
        return code;  // success without a dictionary: no process holds an assertion
    }
    const auto count = static_cast<std::size_t>(CFDictionaryGetCount(byProcess.get()));
    std::vector<const void*> pids(count);
    std::vector<const void*> assertions(count);
    CFDictionaryGetKeysAndValues(byProcess.get(), pids.data(), assertions.data());
    for (std::size_t index = 0; index < count; ++index) {
        visitProcess(pids[index], assertions[index], Visit{visitor, context});
    }
    return 0;
}
