#pragma once

#include <cstddef>

// 0, or -1 with errno. oldSize: capacity on entry, size of the value on return.
extern "C" int sysctlbyname(const char* name, void* oldValue, std::size_t* oldSize, void* newValue,
                            std::size_t newSize);
