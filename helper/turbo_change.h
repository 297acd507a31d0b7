// A turbo choice that can be taken back: when it is cut in, or when the fans cannot follow it.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "core/model/scope_error.h"
#include "core/power/power_settings_access.h"

namespace ferovane {

class TurboChange {
public:
    // Changes nothing yet. The access must outlive this.
    explicit TurboChange(PowerSettingsAccess& access) : access_(access) {}

    // Disables or enables turbo unless it is so already; throws when that is not confirmed. A
    // change that is given up (WorkStopped) is put back as by rollBackOnFailure.
    void apply(bool disable);

    // Runs the fan part. When it throws and turbo had been changed from a known state, turbo is put
    // back first; a failure of that is appended to the fan part's message.
    template <class FanPart>
    void rollBackOnFailure(FanPart&& fanPart) {
        try {
            fanPart();
        } catch (const std::exception& error) {
            rollBack(error);
            throw;
        }
    }

private:
    // Throws only when turbo could not be put back, with both failures.
    void rollBack(const std::exception& cause);

    PowerSettingsAccess& access_;
    std::optional<bool> disabledBefore_;  // present once a change from a known state began
};

}  // namespace ferovane
