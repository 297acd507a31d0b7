#include "core/control/control_reply.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/control/control_channel.h"
#include "core/model/json_codec.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

constexpr std::string_view kOmission = "…（内容过长，中间已省略）…";

// The end of a well-formed text in at most `limit` bytes, cut between characters.
std::string_view utf8Suffix(std::string_view text, std::size_t limit) {
    std::size_t begin = text.size() - std::min(limit, text.size());
    while (begin < text.size() && utf8Prefix(text, begin).size() != begin) {
        ++begin;
    }
    return text.substr(begin);
}

bool fits(const ControlReply& reply) {
    return encodeJson(reply).size() <= kMaxControlLineBytes;
}

}  // namespace

ControlReply fittedToLine(ControlReply reply) {
    if (fits(reply)) {
        return reply;
    }
    // Characters that need escaping take more room in the line than in the message, so how much of
    // it fits is found by trying. It never takes less, which bounds what is worth trying.
    const std::string whole = repairUtf8(reply.message);
    const auto shorten = [&](std::size_t bytes) {
        const std::string_view head = utf8Prefix(whole, bytes - bytes / 2);
        reply.message.assign(head).append(kOmission).append(utf8Suffix(whole, bytes / 2));
        return fits(reply);
    };
    std::size_t fitting = 0;
    for (std::size_t tooMuch = std::min(whole.size(), kMaxControlLineBytes) + 1;
         tooMuch - fitting > 1;) {
        const std::size_t tried = fitting + (tooMuch - fitting) / 2;
        (shorten(tried) ? fitting : tooMuch) = tried;
    }
    shorten(fitting);
    return reply;
}

}  // namespace ferovane
