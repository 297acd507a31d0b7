// IOKit's services: the controller "AppleSMC" and the battery "AppleSmartBattery".
#include <IOKit/IOKitLib.h>

#include <cstring>

#include "simulator/machine/cf_values.h"
#include "simulator/machine/faults.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/power_keys.h"

namespace {

using namespace simulator;

constexpr char kProviderClass[] = "IOProviderClass";
constexpr std::uint32_t kControllerClientType = 0;
// A message to a port that does not exist, or not any more.
constexpr kern_return_t kInvalidDestination = 0x10000003;

ServiceKind matchedKind(Machine& machine, CFDictionaryRef matching) {
    const void* name = nullptr;
    if (matching == nullptr ||
        !CFDictionaryGetValueIfPresent(matching, cfString(kProviderClass).get(), &name) ||
        CFGetTypeID(name) != CFStringGetTypeID()) {
        return ServiceKind::kNone;
    }
    return machine.locked([name](World& world) {
        if (CFEqual(name, cfString("AppleSMC").get()) != 0) {
            return world.state().controller == ControllerKind::kNone ? ServiceKind::kNone
                                                                     : ServiceKind::kController;
        }
        const bool battery = CFEqual(name, cfString("AppleSmartBattery").get()) != 0;
        return battery && world.number(Property::kBatteryPresent, 0) != 0 ? ServiceKind::kBattery
                                                                          : ServiceKind::kNone;
    });
}

OwnedCF<CFMutableDictionaryRef> batteryProperties(Machine& machine) {
    auto properties = cfDictionary();
    machine.locked([&properties](World& world) {
        CFMutableDictionaryRef into = properties.get();
        cfSet(into, "BatteryInstalled", static_cast<CFTypeRef>(kCFBooleanTrue));
        cfSet(into, "Voltage", world.property(Property::kBatteryMillivolts));
        cfSet(into, "CycleCount", world.property(Property::kBatteryCycles));
        PropertyValue current = world.property(Property::kBatteryMilliamps);
        if (current.form == PropertyForm::kFollows) {
            current = {PowerKeys::batteryMilliamps(world), PropertyForm::kNumber, 0};
        }
        cfSet(into, "Amperage", current);
    });
    return properties;
}

}  // namespace

extern "C" {

CFMutableDictionaryRef IOServiceMatching(const char* name) {
    if (name == nullptr) {
        return nullptr;
    }
    auto matching = cfDictionary();
    cfSet(matching.get(), kProviderClass, name);
    return matching.release();
}

io_service_t IOServiceGetMatchingService(mach_port_t, CFDictionaryRef matching) {
    const OwnedCF<CFDictionaryRef> consumed(matching);
    Machine* machine = attachedMac();
    if (machine == nullptr) {
        return IO_OBJECT_NULL;
    }
    const ServiceKind kind = matchedKind(*machine, matching);
    return kind == ServiceKind::kNone ? IO_OBJECT_NULL : machine->ports().add(kind);
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t, std::uint32_t type,
                            io_connect_t* connect) {
    Machine* machine = attachedMac();
    if (machine == nullptr || connect == nullptr) {
        return kIOReturnBadArgument;
    }
    if (machine->ports().kind(service) != ServiceKind::kController ||
        type != kControllerClientType) {
        return kIOReturnUnsupported;
    }
    const int refusal = machine->locked([](World& world) {
        const FaultRecord* fault = Faults::strike(world, FaultKind::kRefuseOpen, 0);
        return fault != nullptr ? fault->code : 0;
    });
    if (refusal != 0) {
        return refusal;
    }
    *connect = machine->ports().add(ServiceKind::kConnection);
    return *connect == IO_OBJECT_NULL ? kIOReturnNoResources : kIOReturnSuccess;
}

kern_return_t IOServiceClose(io_connect_t connect) {
    Machine* machine = attachedMac();
    const bool closed =
        machine != nullptr && machine->ports().release(connect, ServiceKind::kConnection);
    return closed ? kIOReturnSuccess : kInvalidDestination;
}

kern_return_t IOObjectRelease(io_object_t object) {
    Machine* machine = attachedMac();
    const bool released =
        machine != nullptr && machine->ports().release(object, ServiceKind::kNone);
    return released ? kIOReturnSuccess : kInvalidDestination;
}

kern_return_t IOConnectCallStructMethod(mach_port_t connection, std::uint32_t selector,
                                        const void* input, std::size_t inputSize, void* output,
                                        std::size_t* outputSize) {
    Machine* machine = attachedMac();
    if (machine == nullptr || machine->ports().kind(connection) != ServiceKind::kConnection) {
        return kInvalidDestination;
    }
    if (selector != kControllerSelector || input == nullptr || output == nullptr ||
        outputSize == nullptr || inputSize != sizeof(ControllerBlock) ||
        *outputSize < sizeof(ControllerBlock)) {
        return kIOReturnBadArgument;
    }
    ControllerBlock in;
    ControllerBlock out;
    std::memcpy(&in, input, sizeof in);
    const ControllerAnswer answer = machine->call(in, out);
    if (answer.code == kIOReturnSuccess) {
        std::memcpy(output, &out, sizeof out);
        *outputSize = answer.outputSize;
    }
    return answer.code;
}

kern_return_t IORegistryEntryCreateCFProperties(io_registry_entry_t entry,
                                                CFMutableDictionaryRef* properties, CFAllocatorRef,
                                                IOOptionBits) {
    Machine* machine = attachedMac();
    if (machine == nullptr || properties == nullptr) {
        return kIOReturnBadArgument;
    }
    switch (machine->ports().kind(entry)) {
        case ServiceKind::kBattery:
            *properties = batteryProperties(*machine).release();
            return kIOReturnSuccess;
        case ServiceKind::kController:
            *properties = cfDictionary().release();
            return kIOReturnSuccess;
        default:
            return kInvalidDestination;
    }
}

CFTypeRef IORegistryEntryCreateCFProperty(io_registry_entry_t entry, CFStringRef key,
                                          CFAllocatorRef allocator, IOOptionBits options) {
    CFMutableDictionaryRef properties = nullptr;
    if (IORegistryEntryCreateCFProperties(entry, &properties, allocator, options) !=
        kIOReturnSuccess) {
        return nullptr;
    }
    const OwnedCF<CFMutableDictionaryRef> owned(properties);
    const void* value = CFDictionaryGetValue(properties, key);
    return value != nullptr ? CFRetain(value) : nullptr;
}

}  // extern "C"
