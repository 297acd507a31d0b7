// The process on whose behalf the helper acts, as its arguments name it.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ferovane {

struct SessionOwner {
    std::int32_t pid = 0;
    std::uint32_t uid = 0;

    // Decimal numbers with an optional sign and nothing else; absent when either does not parse.
    static std::optional<SessionOwner> parse(std::string_view pid, std::string_view uid);
};

}  // namespace ferovane
