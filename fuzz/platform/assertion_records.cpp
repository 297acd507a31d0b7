// What other programs tell the power service about why the machine has to stay awake, however odd
// their records are. This program answers the platform's call itself.
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
#include "fuzz/input.h"
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

// Made once: most of what a record is built of is its names.
const std::vector<Owned>& memberNames() {
    static const std::vector<Owned> names = [] {
        std::vector<Owned> made;
        for (const char* name : {"AssertType", "AssertLevel", "AssertName", "AssertStartWhen",
                                 "Process Name", "Details"}) {
            made.push_back(text(name));
        }
        return made;
    }();
    return names;
}

// A value of some type, not always one that suits its place; none for text that is no UTF-8.
Owned valueFrom(fuzzing::Input& input) {
    constexpr std::array<std::string_view, 4> kTypes{
        "PreventUserIdleSystemSleep", "PreventSystemSleep", "PreventUserIdleDisplaySleep",
        "NetworkClientActive"};
    switch (const auto form = input.take<std::uint8_t>(); form % 8) {
        case 0:
        case 1:
            return text(kTypes[form / 8 % kTypes.size()]);
        case 2:
            return text(input.take(input.take<std::uint8_t>()));
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
    const std::vector<Owned>& names = memberNames();
    Dictionary record = dictionary();
    const auto members = input.take<std::uint8_t>() % 8;
    for (int i = 0; i < members; ++i) {
        const Owned& name = names[input.take<std::uint8_t>() % names.size()];
        if (const Owned value = valueFrom(input)) {
            CFDictionarySetValue(record.get(), name.get(), value.get());
        }
    }
    return record;
}

Owned listFrom(fuzzing::Input& input) {
    std::vector<Owned> elements;
    for (auto count = input.take<std::uint8_t>() % 8; count > 0; --count) {
        const bool placeholder = input.take<std::uint8_t>() % 8 == 7;
        Owned element = placeholder ? valueFrom(input) : Owned(CFRetain(recordFrom(input).get()));
        if (element) {
            elements.push_back(std::move(element));
        }
    }
    std::vector<const void*> raw;
    for (const Owned& element : elements) {
        raw.push_back(element.get());
    }
    return Owned(CFArrayCreate(nullptr, raw.data(), static_cast<CFIndex>(raw.size()),
                               &kCFTypeArrayCallBacks));
}

struct PowerService {
    IOReturn code = kIOReturnSuccess;
    Dictionary byProcess;
};
PowerService service;

void furnish(fuzzing::Input& input) {
    service.code = input.take<std::uint8_t>() == 0xFF ? kIOReturnError : kIOReturnSuccess;
    if (input.take<std::uint8_t>() == 0xFF) {
        return;  // success, and nothing handed out
    }
    service.byProcess = dictionary();
    while (!input.empty()) {
        const auto form = input.take<std::uint8_t>();
        const Owned process =
            form % 16 == 15 ? valueFrom(input) : number(input.take<std::int16_t>());
        const Owned list = form / 16 == 15 ? valueFrom(input) : listFrom(input);
        if (process && list) {
            CFDictionarySetValue(service.byProcess.get(), process.get(), list.get());
        }
    }
}

void checkBlockers(const std::vector<SleepBlocker>& blockers) {
    for (const SleepBlocker& blocker : blockers) {
        require(blocker.type == "PreventUserIdleSystemSleep" ||
                    blocker.type == "PreventSystemSleep" ||
                    blocker.type == "PreventUserIdleDisplaySleep",
                "only what keeps machine or display awake is listed");
        require(!blocker.id().empty(), "every blocker can be told from others");
        fuzzing::checkTold(blocker);
    }
    require(std::is_sorted(blockers.begin(), blockers.end(),
                           [](const auto& a, const auto& b) { return a.pid < b.pid; }),
            "blockers are ordered by process");
}

}  // namespace

extern "C" IOReturn IOPMCopyAssertionsByProcess(CFDictionaryRef* byProcess) {
    if (service.byProcess) {
        *byProcess = static_cast<CFDictionaryRef>(CFRetain(service.byProcess.get()));
    }
    return service.code;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    memberNames();
    const std::int64_t liveBefore = simulator::liveObjects();
    fuzzing::Input input(fuzzing::textOf(data, size));
    furnish(input);
    try {
        checkBlockers(SleepBlocker::read());
        require(service.code == kIOReturnSuccess, "a service that fails is not believed");
    } catch (const ScopeError& error) {
        require(service.code != kIOReturnSuccess, "only a service that fails is an error");
        fuzzing::checkRefusal(error);
    }
    service = {};
    require(simulator::liveObjects() == liveBefore, "every object is given back");
    return 0;
}
