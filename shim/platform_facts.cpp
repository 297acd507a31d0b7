// What the shim takes for granted about the platform's headers, checked by whichever compiler
// builds it: against the SDK on a Mac, against the stand-ins elsewhere. A stand-in that strays from
// the SDK, or an SDK that changes, stops the build here instead of misreading memory in a root
// process. Only what the shim uses is listed.
#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <IOKit/kext/KextManager.h>
#include <IOKit/ps/IOPSKeys.h>
#include <IOKit/ps/IOPowerSources.h>
#include <IOKit/pwr_mgt/IOPM.h>
#include <IOKit/pwr_mgt/IOPMLib.h>
#include <libproc.h>
#include <mach/mach.h>
#include <mach/mach_time.h>
#include <objc/message.h>
#include <objc/runtime.h>
#include <pthread/qos.h>
#include <signal.h>
#include <spawn.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace {

template <class Actual, class Expected>
constexpr bool kSame = std::is_same_v<Actual, Expected>;

template <class Ref>
constexpr bool kPointsToConstant =
    std::is_pointer_v<Ref>&& std::is_const_v<std::remove_pointer_t<Ref>>;

constexpr bool reads(std::string_view literal, std::string_view expected) {
    return literal == expected;
}

// ---- The machine: 64-bit and little-endian, like every Mac this runs on.
static_assert(sizeof(void*) == 8 && sizeof(long) == 8 && sizeof(int) == 4);
static_assert(std::endian::native == std::endian::little);
static_assert(kSame<pid_t, int> && kSame<uid_t, unsigned int>);

// ---- CoreFoundation: types
static_assert(kSame<CFTypeRef, const void*>);
static_assert(kSame<CFIndex, long> && kSame<CFTypeID, unsigned long>);
static_assert(kSame<Boolean, unsigned char> && kSame<UInt8, unsigned char>);
static_assert(kSame<CFAbsoluteTime, double> && kSame<CFStringEncoding, unsigned int>);
static_assert(kPointsToConstant<CFStringRef> && kPointsToConstant<CFDictionaryRef>);
static_assert(kPointsToConstant<CFArrayRef> && kPointsToConstant<CFNumberRef>);
static_assert(kPointsToConstant<CFBooleanRef> && kPointsToConstant<CFDateRef>);
static_assert(kPointsToConstant<CFURLRef> && kPointsToConstant<CFAllocatorRef>);
static_assert(std::is_pointer_v<CFBundleRef> && !kPointsToConstant<CFBundleRef>);
static_assert(kSame<const std::remove_pointer_t<CFMutableDictionaryRef>*, CFDictionaryRef>);
static_assert(!kSame<CFStringRef, CFURLRef> && !kSame<CFNumberRef, CFBooleanRef>);
static_assert(kSame<std::underlying_type_t<CFNumberType>, CFIndex>);

// ---- CoreFoundation: constants
static_assert(kCFNumberSInt32Type == 3 && kCFNumberSInt64Type == 4);
static_assert(kCFNumberFloat64Type == 6);
static_assert(kCFStringEncodingUTF8 == 0x08000100u);
static_assert(kSame<decltype(kCFAllocatorDefault), const CFAllocatorRef>);
static_assert(kSame<decltype(kCFTypeArrayCallBacks), const CFArrayCallBacks>);
static_assert(kSame<decltype(CFSTR("text")), CFStringRef>);

// ---- CoreFoundation: calls
static_assert(kSame<decltype(CFRelease), void(CFTypeRef)>);
static_assert(kSame<decltype(CFGetTypeID), CFTypeID(CFTypeRef)>);
static_assert(kSame<decltype(CFEqual), Boolean(CFTypeRef, CFTypeRef)>);
static_assert(kSame<decltype(CFStringGetTypeID), CFTypeID()>);
static_assert(kSame<decltype(CFNumberGetTypeID), CFTypeID()>);
static_assert(kSame<decltype(CFBooleanGetTypeID), CFTypeID()>);
static_assert(kSame<decltype(CFDateGetTypeID), CFTypeID()>);
static_assert(kSame<decltype(CFArrayGetTypeID), CFTypeID()>);
static_assert(kSame<decltype(CFDictionaryGetTypeID), CFTypeID()>);
static_assert(kSame<decltype(CFStringCreateWithCString),
                    CFStringRef(CFAllocatorRef, const char*, CFStringEncoding)>);
static_assert(kSame<decltype(CFStringGetLength), CFIndex(CFStringRef)>);
static_assert(
    kSame<decltype(CFStringGetMaximumSizeForEncoding), CFIndex(CFIndex, CFStringEncoding)>);
static_assert(
    kSame<decltype(CFStringGetCString), Boolean(CFStringRef, char*, CFIndex, CFStringEncoding)>);
static_assert(kSame<decltype(CFNumberGetValue), Boolean(CFNumberRef, CFNumberType, void*)>);
static_assert(kSame<decltype(CFBooleanGetValue), Boolean(CFBooleanRef)>);
static_assert(kSame<decltype(CFDateGetAbsoluteTime), CFAbsoluteTime(CFDateRef)>);
static_assert(kSame<decltype(CFArrayCreate),
                    CFArrayRef(CFAllocatorRef, const void**, CFIndex, const CFArrayCallBacks*)>);
static_assert(kSame<decltype(CFArrayGetCount), CFIndex(CFArrayRef)>);
static_assert(kSame<decltype(CFArrayGetValueAtIndex), const void*(CFArrayRef, CFIndex)>);
static_assert(kSame<decltype(CFDictionaryGetCount), CFIndex(CFDictionaryRef)>);
static_assert(kSame<decltype(CFDictionaryContainsKey), Boolean(CFDictionaryRef, const void*)>);
static_assert(kSame<decltype(CFDictionaryGetValue), const void*(CFDictionaryRef, const void*)>);
static_assert(kSame<decltype(CFDictionaryGetKeysAndValues),
                    void(CFDictionaryRef, const void**, const void**)>);
static_assert(kSame<decltype(CFURLCreateFromFileSystemRepresentation),
                    CFURLRef(CFAllocatorRef, const UInt8*, CFIndex, Boolean)>);
static_assert(kSame<decltype(CFBundleCreate), CFBundleRef(CFAllocatorRef, CFURLRef)>);
static_assert(kSame<decltype(CFBundleGetIdentifier), CFStringRef(CFBundleRef)>);

// ---- IOKit. Errors must come out negative, or they would pass for controller results.
static_assert(kSame<kern_return_t, int> && kSame<IOReturn, int>);
static_assert(kSame<io_service_t, unsigned int> && kSame<io_connect_t, unsigned int>);
static_assert(kSame<mach_port_t, std::uint32_t>);
static_assert(MACH_PORT_NULL == 0 && IO_OBJECT_NULL == 0);
static_assert(KERN_SUCCESS == 0 && kIOReturnSuccess == 0);
static_assert(kIOReturnNotPrivileged == -536870207 && kIOReturnNoDevice == -536870208);
static_assert(kIOReturnNotFound == -536870160);
static_assert(kSame<decltype(IOServiceMatching), CFMutableDictionaryRef(const char*)>);
static_assert(
    kSame<decltype(IOServiceGetMatchingService), io_service_t(mach_port_t, CFDictionaryRef)>);
static_assert(kSame<decltype(IOServiceOpen),
                    kern_return_t(io_service_t, task_port_t, std::uint32_t, io_connect_t*)>);
static_assert(kSame<decltype(IOServiceClose), kern_return_t(io_connect_t)>);
static_assert(kSame<decltype(IOObjectRelease), kern_return_t(io_object_t)>);
static_assert(kSame<decltype(IOConnectCallStructMethod),
                    kern_return_t(mach_port_t, std::uint32_t, const void*, std::size_t, void*,
                                  std::size_t*)>);
static_assert(kSame<decltype(IORegistryEntryCreateCFProperty),
                    CFTypeRef(io_registry_entry_t, CFStringRef, CFAllocatorRef, IOOptionBits)>);

// ---- Power management. The processor-limit keys are plain text, the assertion keys are strings.
static_assert(kSame<decltype(IOPMCopyCPUPowerStatus), IOReturn(CFDictionaryRef*)>);
static_assert(kSame<decltype(IOPMGetThermalWarningLevel), IOReturn(std::uint32_t*)>);
static_assert(kSame<decltype(IOPMCopyAssertionsByProcess), IOReturn(CFDictionaryRef*)>);
static_assert(reads(kIOPMCPUPowerLimitProcessorSpeedKey, "CPU_Speed_Limit"));
static_assert(reads(kIOPMCPUPowerLimitSchedulerTimeKey, "CPU_Scheduler_Limit"));
static_assert(reads(kIOPMCPUPowerLimitProcessorCountKey, "CPU_Available_CPUs"));
static_assert(kSame<decltype(kIOPMAssertionTypeKey), CFStringRef>);
static_assert(kSame<decltype(kIOPMAssertionNameKey), CFStringRef>);
static_assert(kSame<decltype(kIOPMAssertionLevelKey), CFStringRef>);
static_assert(kIOPMAssertionLevelOff == 0);

// ---- Power sources and kernel extensions
static_assert(kSame<decltype(IOPSCopyPowerSourcesInfo), CFTypeRef()>);
static_assert(kSame<decltype(IOPSCopyPowerSourcesList), CFArrayRef(CFTypeRef)>);
static_assert(
    kSame<decltype(IOPSGetPowerSourceDescription), CFDictionaryRef(CFTypeRef, CFTypeRef)>);
static_assert(kSame<decltype(IOPSGetProvidingPowerSourceType), CFStringRef(CFTypeRef)>);
static_assert(reads(kIOPMACPowerKey, "AC Power"));
static_assert(reads(kIOPSTypeKey, "Type") && reads(kIOPSIsPresentKey, "Is Present"));
static_assert(reads(kIOPSInternalBatteryType, "InternalBattery"));
static_assert(reads(kIOPSCurrentCapacityKey, "Current Capacity"));
static_assert(reads(kIOPSMaxCapacityKey, "Max Capacity"));
static_assert(reads(kIOPSIsChargingKey, "Is Charging"));
static_assert(
    kSame<decltype(KextManagerCopyLoadedKextInfo), CFDictionaryRef(CFArrayRef, CFArrayRef)>);

// ---- Mach
static_assert(kSame<natural_t, unsigned int> && kSame<vm_size_t, unsigned long>);
static_assert(kSame<host_info_t, int*> && kSame<host_info64_t, int*>);
static_assert(kSame<mach_msg_type_number_t, unsigned int>);
static_assert(kSame<decltype(mach_host_self), mach_port_t()>);
static_assert(kSame<std::decay_t<decltype(mach_task_self())>, mach_port_t>);
static_assert(kSame<decltype(mach_port_deallocate), kern_return_t(mach_port_t, mach_port_t)>);
static_assert(kSame<decltype(host_statistics),
                    kern_return_t(host_t, host_flavor_t, host_info_t, mach_msg_type_number_t*)>);
static_assert(kSame<decltype(host_statistics64),
                    kern_return_t(host_t, host_flavor_t, host_info64_t, mach_msg_type_number_t*)>);
static_assert(kSame<decltype(host_page_size), kern_return_t(host_t, vm_size_t*)>);
static_assert(HOST_CPU_LOAD_INFO == 3 && HOST_CPU_LOAD_INFO_COUNT == 4);
static_assert(CPU_STATE_USER == 0 && CPU_STATE_SYSTEM == 1);
static_assert(CPU_STATE_IDLE == 2 && CPU_STATE_NICE == 3);
static_assert(sizeof(host_cpu_load_info_data_t) == 16);
static_assert(kSame<decltype(host_cpu_load_info_data_t::cpu_ticks), natural_t[4]>);
static_assert(HOST_VM_INFO64 == 4);
// Later systems may append fields to this record, never move them.
static_assert(sizeof(vm_statistics64_data_t) >= 152 && alignof(vm_statistics64_data_t) == 8);
static_assert(HOST_VM_INFO64_COUNT == sizeof(vm_statistics64_data_t) / sizeof(integer_t));
static_assert(offsetof(vm_statistics64_data_t, wire_count) == 12);
static_assert(offsetof(vm_statistics64_data_t, purgeable_count) == 88);
static_assert(offsetof(vm_statistics64_data_t, compressor_page_count) == 128);
static_assert(offsetof(vm_statistics64_data_t, internal_page_count) == 140);
static_assert(kSame<decltype(vm_statistics64_data_t::internal_page_count), natural_t>);
static_assert(kSame<decltype(mach_timebase_info), kern_return_t(mach_timebase_info_data_t*)>);
static_assert(kSame<decltype(mach_absolute_time), std::uint64_t()>);
static_assert(kSame<decltype(mach_continuous_time), std::uint64_t()>);
static_assert(sizeof(mach_timebase_info_data_t) == 8);
static_assert(offsetof(mach_timebase_info_data_t, numer) == 0);
static_assert(offsetof(mach_timebase_info_data_t, denom) == 4);

// ---- Processes
static_assert(kSame<decltype(proc_listpids), int(std::uint32_t, std::uint32_t, void*, int)>);
static_assert(kSame<decltype(proc_pidinfo), int(int, int, std::uint64_t, void*, int)>);
static_assert(kSame<decltype(proc_pid_rusage), int(int, int, rusage_info_t*)>);
static_assert(kSame<decltype(proc_name), int(int, void*, std::uint32_t)>);
static_assert(kSame<decltype(proc_pidpath), int(int, void*, std::uint32_t)>);
static_assert(kSame<rusage_info_t, void*>);
static_assert(PROC_ALL_PIDS == 1 && PROC_PIDTBSDINFO == 3 && RUSAGE_INFO_V2 == 2);
static_assert(sizeof(proc_bsdinfo) == 136 && alignof(proc_bsdinfo) == 8);
static_assert(offsetof(proc_bsdinfo, pbi_ppid) == 16);
static_assert(offsetof(proc_bsdinfo, pbi_uid) == 20);
static_assert(offsetof(proc_bsdinfo, pbi_comm) == 48);
static_assert(kSame<decltype(proc_bsdinfo::pbi_comm), char[16]>);
static_assert(sizeof(rusage_info_v2) == 160 && alignof(rusage_info_v2) == 8);
static_assert(offsetof(rusage_info_v2, ri_user_time) == 16);
static_assert(offsetof(rusage_info_v2, ri_system_time) == 24);
static_assert(offsetof(rusage_info_v2, ri_phys_footprint) == 72);
static_assert(offsetof(rusage_info_v2, ri_proc_start_abstime) == 80);
static_assert(offsetof(rusage_info_v2, ri_diskio_bytesread) == 144);
static_assert(offsetof(rusage_info_v2, ri_diskio_byteswritten) == 152);

// ---- Named system values
static_assert(
    kSame<decltype(sysctlbyname), int(const char*, void*, std::size_t*, void*, std::size_t)>);

// ---- Objective-C runtime. BOOL is a character on Intel and a boolean on Apple Silicon.
static_assert(std::is_pointer_v<id> && std::is_pointer_v<Class> && std::is_pointer_v<SEL>);
static_assert(!kSame<id, Class>);
static_assert(sizeof(BOOL) == 1 && std::is_integral_v<BOOL>);
static_assert(kSame<decltype(objc_getClass), Class(const char*)>);
static_assert(kSame<decltype(object_getClass), Class(id)>);
static_assert(kSame<decltype(sel_registerName), SEL(const char*)>);
static_assert(kSame<decltype(class_respondsToSelector), BOOL(Class, SEL)>);
static_assert(kSame<decltype(objc_msgSend), void()>);

// ---- Threads, children, directories. These calls exist on every POSIX system, some with
// noexcept in their type, so they are checked by calling.
static_assert(kSame<decltype(pthread_set_qos_class_self_np), int(qos_class_t, int)>);
static_assert(static_cast<unsigned>(QOS_CLASS_UTILITY) == 0x11);
static_assert(POSIX_SPAWN_SETPGROUP == 0x0002 && POSIX_SPAWN_SETSIGDEF == 0x0004);
static_assert(POSIX_SPAWN_SETSIGMASK == 0x0008 && POSIX_SPAWN_CLOEXEC_DEFAULT == 0x4000);
static_assert(std::is_invocable_r_v<int, decltype(&posix_spawn), pid_t*, const char*,
                                    const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                                    char* const*, char* const*>);
static_assert(
    std::is_invocable_r_v<int, decltype(&posix_spawnattr_setflags), posix_spawnattr_t*, short>);
static_assert(_CS_DARWIN_USER_TEMP_DIR == 65537);
static_assert(std::is_invocable_r_v<std::size_t, decltype(&confstr), int, char*, std::size_t>);
static_assert(SIGHUP == 1 && SIGINT == 2 && SIGTERM == 15);

}  // namespace
