// As much of the Objective-C runtime as asking NSProcessInfo takes. The declaration of objc_msgSend
// has no parameters, so its header must not be included where the function is defined.
#include <objc/runtime.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "simulator/apple/attached_machine.h"

struct objc_class {
    Class isa;
};

namespace {

using simulator::AttachedMachine;

// A class is an object too; what it answers itself is listed by its own class.
objc_class metaclass{nullptr};
objc_class processInfoClass{&metaclass};
objc_object processInfo{&processInfoClass};

using Answer = std::optional<std::intptr_t>;  // nothing: this system has no such method

Answer sharedInstance(AttachedMachine*) {
    return reinterpret_cast<std::intptr_t>(&processInfo);
}

Answer published(const std::optional<double>& number) {
    return number ? Answer(static_cast<std::intptr_t>(*number)) : std::nullopt;
}

Answer processorCount(AttachedMachine* machine) {
    return machine != nullptr ? published(machine->processorCount())
                              : Answer(sysconf(_SC_NPROCESSORS_CONF));
}

Answer thermalState(AttachedMachine* machine) {
    constexpr std::intptr_t kNominal = 0;
    return machine != nullptr ? published(machine->thermalState()) : Answer(kNominal);
}

// Systems before 12.0 have no such method, and neither has a host without a machine.
Answer lowPowerMode(AttachedMachine* machine) {
    return machine != nullptr ? published(machine->lowPowerMode()) : std::nullopt;
}

struct Method {
    const objc_class* owner;
    std::string_view name;
    Answer (*answer)(AttachedMachine*);
};

constexpr std::array<Method, 4> kMethods{
    {{&metaclass, "processInfo", sharedInstance},
     {&processInfoClass, "processorCount", processorCount},
     {&processInfoClass, "thermalState", thermalState},
     {&processInfoClass, "isLowPowerModeEnabled", lowPowerMode}}};

std::string_view nameOf(SEL selector) {
    return reinterpret_cast<const char*>(selector);
}

Answer answerOf(const objc_class* type, std::string_view name) {
    for (const Method& method : kMethods) {
        if (method.owner == type && method.name == name) {
            return method.answer(simulator::attachedMachine());
        }
    }
    return std::nullopt;
}

}  // namespace

Class objc_getClass(const char* name) {
    return std::string_view(name) == "NSProcessInfo" ? &processInfoClass : nullptr;
}

Class object_getClass(id object) {
    return object != nullptr ? object->isa : nullptr;
}

SEL sel_registerName(const char* name) {
    static std::mutex mutex;
    // Never destroyed: a selector is valid for the life of the process.
    static auto& names = *new std::set<std::string>;
    const std::lock_guard lock(mutex);
    const char* text = names.emplace(name).first->c_str();
    return reinterpret_cast<SEL>(const_cast<char*>(text));
}

BOOL class_respondsToSelector(Class type, SEL selector) {
    const bool responds = type != nullptr && answerOf(type, nameOf(selector)).has_value();
    return static_cast<BOOL>(responds);
}

// Every method here returns at most one integer register, so one definition serves all the types
// that callers cast this to. Arguments and result travel alike on x86-64 and arm64.
extern "C" std::intptr_t objc_msgSend(objc_object* receiver, SEL selector);
std::intptr_t objc_msgSend(objc_object* receiver, SEL selector) {
    if (receiver == nullptr) {
        return 0;
    }
    const Answer answer = answerOf(receiver->isa, nameOf(selector));
    if (!answer) {
        // An uncaught exception on macOS.
        std::fprintf(stderr, "NSProcessInfo: unrecognized selector %s\n", nameOf(selector).data());
        std::abort();
    }
    return *answer;
}
