// The calls by which the code under test reaches the outside, redirected when the test program is
// linked. On a thread that takes no part in a FaultWorld they do what they always do.
#pragma once

#include <cstddef>

namespace ferovane::testing {

// The host's own write, whatever descriptor it is.
long writeReally(int descriptor, const void* bytes, std::size_t size);

}  // namespace ferovane::testing
