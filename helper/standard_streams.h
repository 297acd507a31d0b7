// Whole texts to a descriptor.
#pragma once

#include <exception>
#include <string_view>

namespace ferovane {

// Opens the null device wherever one of the three standard descriptors is closed, so that nothing
// opened later gets such a number and is written to by mistake. False when one is still closed.
// Safe after a fork.
bool occupyStandardDescriptors() noexcept;

// Writes all of the text, however long the reader takes, also where writes do not block; throws
// ScopeError when it cannot.
void writeText(int descriptor, std::string_view text);

// The text and a line feed. For messages whose loss must not change what happens next: gives up
// once the reader has taken nothing for a second.
void reportLine(int descriptor, std::string_view text) noexcept;

// The text of a failure, as reportLine.
void reportFailure(int descriptor, const std::exception_ptr& failure) noexcept;

}  // namespace ferovane
