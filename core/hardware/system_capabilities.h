// What this machine and its operating system can do at all; fixed while a process runs.
#pragma once

namespace ferovane::SystemCapabilities {

// The system has a low-power mode that can be asked for: version 12.0 and later.
bool lowPowerMode();

// Fans are handed over as Apple Silicon does it, not switched as on Intel. Also true for a
// translated process.
bool appleSilicon();

}  // namespace ferovane::SystemCapabilities
