// Families of machines that name their sensor keys alike.
#pragma once

#include <string_view>

namespace ferovane {

enum class SensorNamingPlatform {
    generic,       // every machine not listed below
    appleM4,       // Apple M4
    appleM4ProMax  // Apple M4 Pro and M4 Max
};

// From a processor's brand string; white space around it does not count, upper and lower case do.
SensorNamingPlatform detectNamingPlatform(std::string_view cpuBrand);

// This machine's, found out at the first call and kept. Generic when the kernel does not tell.
// Any thread.
SensorNamingPlatform currentNamingPlatform();

}  // namespace ferovane
