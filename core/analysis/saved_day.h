// The day of a monitor as a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/analysis/monitor_histories.h"

namespace ferovane::DayFile {

inline constexpr std::uint64_t kVersion = 1;
inline constexpr std::uintmax_t kMostBytes = 16 << 20;  // of a file that is read; a day takes one

// What becomes of a file that is there and is not a readable day of this version.
enum class Unreadable { keep, replace };

// Both may be called from any thread, with histories that no other thread changes meanwhile; a save
// copies what they hold.
//
// Numbers are rounded to thousandths, nine million million at most; dates are exact. Writes beside
// the file (".new") and renames once the disk was handed all of it: whenever the program is ended,
// the old day or the new one is there. Only the user may read it. With `keep` an unreadable file
// stays as it is, which is a failure; so is another save that goes on in the same folder. Throws
// ScopeError.
void save(const std::string& file, const MonitorHistories& histories,
          Unreadable unreadable = Unreadable::keep);

// What was saved takes the place of what the histories hold, and goes on after a gap. False when
// there is no file. Throws ScopeError for one that cannot be read, was damaged, or is of another
// version or program. Without success nothing changes, whatever the file says.
bool load(const std::string& file, MonitorHistories& histories);

}  // namespace ferovane::DayFile
