#include "core/model/scope_error.h"

namespace ferovane {

std::string describe(const std::exception& error) {
    const auto* ours = dynamic_cast<const ScopeError*>(&error);
    return ours != nullptr ? ours->message() : error.what();
}

std::string joinFailures(const std::vector<std::string>& failures) {
    std::string joined;
    for (const std::string& failure : failures) {
        if (!joined.empty()) {
            joined += "；";
        }
        joined += failure;
    }
    return joined;
}

}  // namespace ferovane
