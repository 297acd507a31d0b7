// How many CoreFoundation objects are alive: the leak check of whole test programs and runs.
#pragma once

#include <cstdint>

namespace simulator {

// Objects created and not yet released to nothing. Constant strings, the two booleans and the
// allocator are never counted. Any thread.
std::int64_t liveObjects();

}  // namespace simulator
