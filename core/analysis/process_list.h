// Lists of the processes of this machine.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "core/analysis/process_sample.h"
#include "shim/fv.h"

namespace ferovane {

// Keeps its memory from one list to the next. Without privileges only the user's own processes can
// be read. One thread at a time.
class ProcessList {
public:
    ProcessList();

    // The processes that can be read now, in the system's order; valid until the next call. Absent
    // when the system gives no list, or one in which not even this process can be read: taken for a
    // list it would say that everything has ended.
    std::optional<std::span<const ProcessSample>> read();

    // Processes in the last list that could not be read.
    int inaccessible() const { return inaccessible_; }

private:
    std::optional<std::size_t> fill();

    std::vector<FVProcessSnapshot> entries_;
    std::vector<ProcessSample> samples_;
    int inaccessible_ = 0;
};

}  // namespace ferovane
