// The monitoring commands: they read, and need no privileges.
#pragma once

#include "helper/helper_environment.h"

namespace ferovane {

// Prints one snapshot as indented JSON with sorted keys and ISO-8601 dates, and a line feed. Takes
// a quarter of a second, over which the processor's use is measured.
void printSnapshot(const HelperEnvironment& environment);

// Prints those raw fan keys of the whole machine and of fan 0 that can be read, as one JSON object
// from key to number, and a line feed; "{}" on a machine without a controller.
void printFanKeys(const HelperEnvironment& environment);

}  // namespace ferovane
