#include "helper/session_owner.h"

#include "core/model/number_text.h"

namespace ferovane {

std::optional<SessionOwner> SessionOwner::parse(std::string_view pid, std::string_view uid) {
    const auto pidNumber = parseInt32(pid);
    const auto uidNumber = parseUInt32(uid);
    if (!pidNumber || !uidNumber) {
        return std::nullopt;
    }
    return SessionOwner{*pidNumber, *uidNumber};
}

}  // namespace ferovane
