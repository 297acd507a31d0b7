#include "core/power/sleep_blocker.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>
#include <string_view>
#include <utility>

#include "core/model/scope_error.h"

namespace ferovane {

namespace {

constexpr std::array<std::string_view, 3> kBlockingTypes{
    "PreventUserIdleSystemSleep", "PreventSystemSleep", "PreventUserIdleDisplaySleep"};

bool blocks(const FVPowerAssertion& assertion) {
    return assertion.level > 0 && assertion.type != nullptr &&
           std::find(kBlockingTypes.begin(), kBlockingTypes.end(), assertion.type) !=
               kBlockingTypes.end();
}

SleepBlocker blocker(const FVPowerAssertion& assertion) {
    const auto textOr = [](const char* text, const char* otherwise) {
        return std::string(text != nullptr ? text : otherwise);
    };
    SleepBlocker result{assertion.pid, textOr(assertion.process_name, "未知进程"),
                        textOr(assertion.reason, ""), assertion.type, std::nullopt};
    if (std::isfinite(assertion.since)) {
        result.since = Date{assertion.since};
    }
    return result;
}

struct Collection {
    std::vector<SleepBlocker> blockers;
    std::exception_ptr failure;  // nothing may be thrown through the shim's frames
};

void collect(void* context, const FVPowerAssertion* assertion) {
    auto& collection = *static_cast<Collection*>(context);
    try {
        if (blocks(*assertion)) {
            collection.blockers.push_back(blocker(*assertion));
        }
    } catch (...) {
        collection.failure = std::current_exception();
    }
}

// The process id first, numerically, as the system's own lists do; the rest makes the order
// total, so that sorting needs not be stable.
bool precedes(const SleepBlocker& a, const SleepBlocker& b) {
    return std::tie(a.pid, a.type, a.name, a.reason, a.since) <
           std::tie(b.pid, b.type, b.name, b.reason, b.since);
}

}  // namespace

std::string SleepBlocker::id() const {
    return std::to_string(pid).append(":").append(type).append(":").append(name);
}

std::vector<SleepBlocker> SleepBlocker::read(Assertions assertions) {
    Collection collection;
    if (assertions(collect, &collection) != 0) {
        throw ScopeError("休眠阻止状态不可读取", ResultCode::unreadable);
    }
    if (collection.failure) {
        std::rethrow_exception(collection.failure);
    }
    std::sort(collection.blockers.begin(), collection.blockers.end(), precedes);
    return std::move(collection.blockers);
}

}  // namespace ferovane
