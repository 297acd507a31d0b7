// How every fan path says that a fan could not be handed back.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ferovane {

inline constexpr std::string_view kRestoreFailed = "恢复自动风扇失败";

// The text above with its causes, in order; the bare text when no cause is known.
std::string restoreFailure(const std::vector<std::string>& causes);

}  // namespace ferovane
