// What other programs tell the power service about why the machine has to stay awake, however odd
// their records are.
//
// The input is a list of steps, one byte each: another process, another list, another member of a
// record, with whatever the member needs behind it.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "core/model/scope_error.h"
#include "core/power/sleep_blocker.h"
#include "fuzz/json_properties.h"
#include "shim/owned_ref.h"
#include "simulator/apple/live_objects.h"

namespace {

using namespace ferovane;
using fuzzing::require;
using Owned = shim::OwnedRef<CFTypeRef>;

Owned text(std::string_view bytes) {
    const auto* raw = reinterpret_cast<const UInt8*>(bytes.data());
    return Owned(CFStringCreateWithBytes(nullptr, raw, static_cast<CFIndex>(bytes.size()),
                                         kCFStringEncodingUTF8, 0));
}

Owned number(std::int64_t value) {
    return Owned(CFNumberCreate(nullptr, kCFNumberSInt64Type, &value));
}

// A value of some type, not always one that suits its place; none for text that is no UTF-8.
Owned valueFrom(fuzzing::Input& input) {
    constexpr std::array<std::string_view, 4> kTypes{
        "PreventUserIdleSystemSleep", "PreventSystemSleep", "PreventUserIdleDisplaySleep",
        "NetworkClientActive"};
    switch (const auto form = input.byte(); form % 8) {
        case 0:
        case 1:
            return text(kTypes[form / 8 % kTypes.size()]);
        case 2:
            return text(input.take(input.byte()));
        case 3:
            return number(input.take<std::int8_t>());
        case 4:
            return number(input.take<std::int64_t>());
        case 5: {
            const auto value = input.take<double>();
            return Owned(CFNumberCreate(nullptr, kCFNumberFloat64Type, &value));
        }
        case 6:
            return Owned(CFDateCreate(nullptr, input.take<double>()));
        default:
            return Owned(CFRetain(form < 128 ? kCFBooleanTrue : kCFBooleanFalse));
    }
}

using Dictionary = shim::OwnedRef<CFMutableDictionaryRef>;

Dictionary dictionary() {
    return Dictionary(CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                &kCFTypeDictionaryValueCallBacks));
}

Dictionary recordFrom(fuzzing::Input& input) {
    constexpr std::array<std::string_view, 6> kNames{
        "AssertType", "AssertLevel", "AssertName", "AssertStartWhen", "Process Name", "Details"};
    Dictionary record = dictionary();
    for (auto members = input.byte() % 8; members > 0; --members) {
        const Owned name = text(kNames[input.byte() % kNames.size()]);
        if (const Owned value = valueFrom(input)) {
            CFDictionarySetValue(record.get(), name.get(), value.get());
        }
    }
    return record;
}

Owned listFrom(fuzzing::Input& input) {
    std::vector<Owned> elements;
    std::vector<const void*> raw;
    for (auto count = input.byte() % 8; count > 0; --count) {
        const bool placeholder = input.byte() % 8 == 7;
        Owned element = placeholder ? valueFrom(input) : Owned(CFRetain(recordFrom(input).get()));
        if (element) {
            raw.push_back(element.get());
            elements.push_back(std::move(element));
        }
    }
    return Owned(CFArrayCreate(nullptr, raw.data(), static_cast<CFIndex>(raw.size()),
                               &kCFTypeArrayCallBacks));
}

// What the service hands out, and with which code.
IOReturn serviceCode = kIOReturnSuccess;
Dictionary byProcess;

void furnish(fuzzing::Input& input) {
    serviceCode = input.byte() == 0xFF ? kIOReturnError : kIOReturnSuccess;
    byProcess = input.byte() == 0xFF ? Dictionary() : dictionary();  // success may hand out nothing
    while (byProcess && !input.empty()) {
        const auto form = input.byte();
        const Owned process =
            form % 16 == 15 ? valueFrom(input) : number(input.take<std::int16_t>());
        const Owned list = form / 16 == 15 ? valueFrom(input) : listFrom(input);
        if (process && list) {
            CFDictionarySetValue(byProcess.get(), process.get(), list.get());
        }
    }
}

}  // namespace

// In the place of the simulated Mac's answer.
extern "C" IOReturn __wrap_IOPMCopyAssertionsByProcess(CFDictionaryRef* handedOut) {
    if (byProcess) {
        *handedOut = static_cast<CFDictionaryRef>(CFRetain(byProcess.get()));
    }
    return serviceCode;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::int64_t liveBefore = simulator::liveObjects();
    fuzzing::Input input(data, size);
    furnish(input);
    std::vector<SleepBlocker> blockers;
    require(fuzzing::admits([&] { blockers = SleepBlocker::read(); }) ==
                (serviceCode == kIOReturnSuccess),
            "only a service that fails is an error");
    for (const SleepBlocker& blocker : blockers) {
        require(blocker.type == "PreventUserIdleSystemSleep" ||
                    blocker.type == "PreventSystemSleep" ||
                    blocker.type == "PreventUserIdleDisplaySleep",
                "only what keeps machine or display awake is listed");
        require(!blocker.id().empty(), "every blocker can be told from others");
        fuzzing::checkAccepted(blocker);
    }
    require(std::ranges::is_sorted(blockers, {}, &SleepBlocker::pid),
            "blockers are ordered by process");
    byProcess = Dictionary();
    require(simulator::liveObjects() == liveBefore, "every object is given back");
    return 0;
}
