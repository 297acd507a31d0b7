#include "core/fan/restore_failure.h"

#include "core/model/scope_error.h"

namespace ferovane {

std::string restoreFailure(const std::vector<std::string>& causes) {
    std::string text(kRestoreFailed);
    if (!causes.empty()) {
        text += "：" + joinFailures(causes);
    }
    return text;
}

}  // namespace ferovane
