#include <gtest/gtest.h>
#include <mach/mach.h>
#include <mach/mach_time.h>
#include <objc/message.h>
#include <objc/runtime.h>
#include <stdlib.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>

#include "simulator/apple/live_objects.h"

namespace {

TEST(HostStatisticsTest, CpuTicksAccountForAllProcessors) {
    const mach_port_t host = mach_host_self();
    host_cpu_load_info_data_t load{};
    const auto words = reinterpret_cast<host_info_t>(&load);
    mach_msg_type_number_t count = HOST_CPU_LOAD_INFO_COUNT - 1;
    EXPECT_EQ(host_statistics(host, HOST_CPU_LOAD_INFO, words, &count), KERN_FAILURE);
    count = HOST_CPU_LOAD_INFO_COUNT;
    ASSERT_EQ(host_statistics(host, HOST_CPU_LOAD_INFO, words, &count), KERN_SUCCESS);

    double ticks = 0;
    for (const natural_t counter : load.cpu_ticks) {
        ticks += counter;
    }
    const double uptime = static_cast<double>(mach_continuous_time()) / 1e9;
    const double expected = uptime * 100 * static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
    // A hypervisor takes time that no counter shows; 32 bits wrap after long uptimes.
    if (expected < 4e9) {
        EXPECT_GT(ticks, expected * 0.5);
        EXPECT_LT(ticks, expected * 1.1);
    }
    EXPECT_EQ(mach_port_deallocate(mach_task_self(), host), KERN_SUCCESS);
}

TEST(HostStatisticsTest, MemoryCountersAddUpToTheMachinesMemory) {
    const mach_port_t host = mach_host_self();
    vm_statistics64_data_t pages{};
    mach_msg_type_number_t count = HOST_VM_INFO64_COUNT + 5;
    ASSERT_EQ(
        host_statistics64(host, HOST_VM_INFO64, reinterpret_cast<host_info64_t>(&pages), &count),
        KERN_SUCCESS);
    EXPECT_EQ(count, HOST_VM_INFO64_COUNT);
    vm_size_t pageSize = 0;
    ASSERT_EQ(host_page_size(host, &pageSize), KERN_SUCCESS);
    mach_port_deallocate(mach_task_self(), host);

    std::uint64_t total = 0;
    std::size_t size = sizeof total;
    ASSERT_EQ(sysctlbyname("hw.memsize", &total, &size, nullptr, 0), 0);
    const double accounted =
        static_cast<double>(std::uint64_t{pages.internal_page_count} + pages.external_page_count +
                            pages.wire_count + pages.compressor_page_count + pages.free_count) *
        static_cast<double>(pageSize);
    EXPECT_NEAR(accounted / static_cast<double>(total), 1.0, 0.01);
}

TEST(HostStatisticsTest, PortIsDeadOnceItsReferencesAreGivenBack) {
    const std::int64_t atStart = simulator::hostPortReferences();
    const mach_port_t host = mach_host_self();
    EXPECT_EQ(simulator::hostPortReferences(), atStart + 1);
    mach_port_deallocate(mach_task_self(), host);
    ASSERT_EQ(simulator::hostPortReferences(), 0);
    EXPECT_NE(mach_port_deallocate(mach_task_self(), host), KERN_SUCCESS);
    vm_size_t pageSize = 0;
    EXPECT_EQ(host_page_size(host, &pageSize), MACH_SEND_INVALID_DEST);
}

TEST(SystemValuesTest, SizesFollowTheBufferRule) {
    std::size_t size = 0;
    ASSERT_EQ(sysctlbyname("hw.ncpu", nullptr, &size, nullptr, 0), 0);
    EXPECT_EQ(size, 4u);
    std::int32_t processors = 0;
    size = 3;
    EXPECT_EQ(sysctlbyname("hw.ncpu", &processors, &size, nullptr, 0), -1);
    EXPECT_EQ(errno, ENOMEM);
    size = 8;
    std::array<std::int32_t, 2> wide{};
    ASSERT_EQ(sysctlbyname("hw.ncpu", wide.data(), &size, nullptr, 0), 0);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(wide[0], sysconf(_SC_NPROCESSORS_CONF));
    EXPECT_EQ(sysctlbyname("hw.ncpu", nullptr, nullptr, &processors, sizeof processors), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST(SystemValuesTest, WithoutAMachineItsNamesDoNotExist) {
    for (const char* name : {"hw.optional.arm64", "kern.osproductversion", "hw.no_such_name"}) {
        std::array<char, 64> buffer{};
        std::size_t size = buffer.size();
        errno = 0;
        EXPECT_EQ(sysctlbyname(name, buffer.data(), &size, nullptr, 0), -1) << name;
        EXPECT_EQ(errno, ENOENT) << name;
    }
    const Class type = objc_getClass("NSProcessInfo");
    EXPECT_EQ(class_respondsToSelector(type, sel_registerName("isLowPowerModeEnabled")), 0);
    EXPECT_EQ(objc_getClass("NSWorkspace"), nullptr);
}

TEST(ProcessInfoTest, AnswersThroughExactlyTypedCalls) {
    const Class type = objc_getClass("NSProcessInfo");
    const auto shared = reinterpret_cast<id (*)(Class, SEL)>(objc_msgSend);
    const auto count = reinterpret_cast<unsigned long (*)(id, SEL)>(objc_msgSend);
    const id info = shared(type, sel_registerName("processInfo"));
    ASSERT_EQ(object_getClass(info), type);
    EXPECT_EQ(count(info, sel_registerName("processorCount")),
              static_cast<unsigned long>(sysconf(_SC_NPROCESSORS_CONF)));
    EXPECT_EQ(count(nullptr, sel_registerName("processorCount")), 0u);
    // A class method is not one of its instances.
    EXPECT_EQ(class_respondsToSelector(type, sel_registerName("processInfo")), 0);
    EXPECT_DEATH(count(info, sel_registerName("noSuchMessage")), "noSuchMessage");
}

TEST(TemporaryDirectoryTest, NameEndsInASlashAndTheSizeCountsTheEnd) {
    struct Case {
        const char* environment;
        std::string expected;
    };
    const char* before = getenv("TMPDIR");
    const std::string saved = before != nullptr ? before : "";
    for (const Case& test :
         {Case{"/var/x", "/var/x/"}, Case{"/var/x/", "/var/x/"}, Case{"", "/tmp/"}}) {
        setenv("TMPDIR", test.environment, 1);
        std::array<char, 32> buffer{};
        EXPECT_EQ(confstr(_CS_DARWIN_USER_TEMP_DIR, buffer.data(), buffer.size()),
                  test.expected.size() + 1);
        EXPECT_EQ(buffer.data(), test.expected);
        EXPECT_EQ(confstr(_CS_DARWIN_USER_TEMP_DIR, buffer.data(), 3), test.expected.size() + 1);
        EXPECT_EQ(buffer.data(), test.expected.substr(0, 2));
    }
    before != nullptr ? setenv("TMPDIR", saved.c_str(), 1) : unsetenv("TMPDIR");
    EXPECT_GT(confstr(_CS_PATH, nullptr, 0), 1u);
}

}  // namespace
