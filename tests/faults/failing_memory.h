// Memory that runs out in the code under test: the n-th allocation from now fails, alone or with
// every one after it.
#pragma once

namespace ferovane::testing {

class FailingMemory {
public:
    static void failAfter(long successes, bool forGood);
    static void relent();       // everything succeeds again
    static long allocations();  // in the code under test since failAfter, failed ones too
    static long failures();     // of these
};

}  // namespace ferovane::testing
