#pragma once

#include <mach/mach_types.h>
#include <cstdint>

struct mach_timebase_info {
    std::uint32_t numer;
    std::uint32_t denom;
};
typedef struct mach_timebase_info* mach_timebase_info_t;
typedef struct mach_timebase_info mach_timebase_info_data_t;

extern "C" {

kern_return_t mach_timebase_info(mach_timebase_info_t info);
std::uint64_t mach_absolute_time(void);    // stops while the machine sleeps
std::uint64_t mach_continuous_time(void);  // counts while the machine sleeps

}  // extern "C"
