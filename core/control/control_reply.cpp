#include "core/control/control_reply.h"

#include <string_view>
#include <utility>

#include "core/control/control_channel.h"
#include "core/model/json_codec.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

constexpr std::string_view kOmission = "…（内容过长，其余已省略）";

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
    std::string whole = repairUtf8(reply.message);
    whole.resize(utf8Prefix(whole, kMaxControlLineBytes).size());
    std::size_t fitting = 0;
    for (std::size_t tooMuch = whole.size() + 1; tooMuch - fitting > 1;) {
        const std::size_t tried = fitting + (tooMuch - fitting) / 2;
        reply.message = std::string(utf8Prefix(whole, tried)).append(kOmission);
        (fits(reply) ? fitting : tooMuch) = tried;
    }
    reply.message = std::string(utf8Prefix(whole, fitting)).append(kOmission);
    return reply;
}

}  // namespace ferovane
