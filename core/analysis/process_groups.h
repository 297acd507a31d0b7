// Which application each process of a list belongs to.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "core/analysis/process_index.h"
#include "core/analysis/process_sample.h"

namespace ferovane {

// The positions, in the list, of the processes that lead each process's application: itself or an
// ancestor. An application is led by the process that the system's first process started, or by one
// whose parent is not in the list (it belongs to another user) or is a later process that got the
// parent's pid. `index` holds the positions of the list. Takes time linear in its length, whatever
// the chains look like.
void findLeaders(std::span<const ProcessSample> processes, const ProcessIndex& index,
                 std::vector<std::size_t>& leaders);

}  // namespace ferovane
