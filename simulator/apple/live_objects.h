// What a program has not given back yet: the leak check of whole test programs and runs.
#pragma once

#include <cstdint>

namespace simulator {

// CoreFoundation objects created and not yet released to nothing. Constant strings, the two
// booleans and the allocator are never counted. Any thread.
std::int64_t liveObjects();

// References to the host port: one for each mach_host_self() without its mach_port_deallocate().
std::int64_t hostPortReferences();

}  // namespace simulator
