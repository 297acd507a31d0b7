#include "core/hardware/system_capabilities.h"

#include "shim/fv.h"

namespace ferovane::SystemCapabilities {
namespace {

constexpr int kFirstVersionWithLowPowerMode = 1200;  // 12.0, as fv_system_version counts

}  // namespace

bool lowPowerMode() {
    return fv_system_version() >= kFirstVersionWithLowPowerMode;
}

bool appleSilicon() {
    return fv_apple_silicon() == 1;
}

}  // namespace ferovane::SystemCapabilities
