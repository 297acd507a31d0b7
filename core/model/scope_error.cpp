#include "core/model/scope_error.h"

#include <new>

namespace ferovane {

std::string_view userText(const std::exception& error) noexcept {
    if (const auto* ours = dynamic_cast<const ScopeError*>(&error)) {
        return ours->message();
    }
    const bool outOfMemory = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
    return outOfMemory ? "内存不足，操作未完成" : "内部错误，操作未完成";
}

std::string describe(const std::exception& error) {
    return std::string(userText(error));
}

ResultCode codeOf(const std::exception& error) noexcept {
    if (const auto* ours = dynamic_cast<const ScopeError*>(&error)) {
        return ours->code();
    }
    const bool outOfMemory = dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
    return outOfMemory ? ResultCode::resources : ResultCode::internal;
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
