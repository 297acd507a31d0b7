#include "core/power/power_edit.h"

namespace ferovane {

std::string PowerEdit::id() const {
    return std::string(rawValue(source)).append(":").append(rawValue(key));
}

}  // namespace ferovane
