// Which requests a machine of this kind may serve.
#pragma once

#include "core/control/control_request.h"

namespace ferovane::FanControlPolicy {

// Throws unless the request is valid in itself and, on Apple Silicon, touches nothing but fans: the
// named profiles also switch turbo, which exists on Intel only.
void validate(const ControlRequest& request, bool appleSilicon);

}  // namespace ferovane::FanControlPolicy
