// Recorded samples as a table that other programs read.
#pragma once

#include <span>
#include <string>

#include "core/model/snapshot.h"

namespace ferovane::Export {

// A header line and one line per snapshot, in order, joined with "\n" and without one at the end.
// Values that are absent, infinite or NaN are empty fields; the decimal point is a full stop
// whatever the process locale.
std::string csv(std::span<const Snapshot> snapshots);

}  // namespace ferovane::Export
