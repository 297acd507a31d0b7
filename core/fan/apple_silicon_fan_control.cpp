#include "core/fan/apple_silicon_fan_control.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "core/fan/fan_keys.h"
#include "core/fan/hand_back.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

constexpr double kUnlocked = 1;

// After the unlock the system's thermal daemon lets go of the fan within a few seconds.
constexpr int kRetryRounds = 40;
constexpr double kRetrySeconds = 4.0;

std::optional<double> tryRead(const AppleSiliconFanControl::Read& read, const std::string& key) {
    try {
        return read(key);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The controller's refusal, to be told later if nothing else helps; null when it accepted.
std::exception_ptr tryWrite(const AppleSiliconFanControl::Write& write, const std::string& key,
                            double value) {
    try {
        write(key, value);
        return nullptr;
    } catch (const std::exception&) {
        return std::current_exception();
    }
}

}  // namespace

AppleSiliconFanControl::AppleSiliconFanControl(Read read, Write write, Wait wait, Now now)
    : read_(std::move(read)),
      write_(std::move(write)),
      wait_(std::move(wait)),
      now_(std::move(now)) {}

std::optional<std::string> AppleSiliconFanControl::modeKey(int fan) {
    if (!FanLimits::isFan(fan)) {
        return std::nullopt;
    }
    for (const char* name : FanKeys::kModes) {
        std::string key = FanKeys::of(fan, name);
        if (tryRead(read_, key)) {
            return key;
        }
    }
    return std::nullopt;
}

void AppleSiliconFanControl::setManual(int fan, bool enabled) {
    // A fan that is held goes back through the key it was taken by, even when that key cannot be
    // read just now: the write may still arrive.
    if (const auto held = originals_.find(fan); !enabled && held != originals_.end()) {
        restore(fan, std::string(held->second.key));  // a copy: the entry goes with its success
        return;
    }
    if (enabled) {
        take(fan);
    } else {
        restore(fan, requireModeKey(fan));
    }
}

std::string AppleSiliconFanControl::requireModeKey(int fan) {
    if (std::optional<std::string> key = modeKey(fan)) {
        return *std::move(key);
    }
    throw FanRefusal("此风扇没有可识别的 Apple Silicon 模式接口", ResultCode::unsupported);
}

AppleSiliconFanControl::Original AppleSiliconFanControl::free(int fan) {
    const std::string key = requireModeKey(fan);
    const std::optional<double> mode = tryRead(read_, key);
    if (!mode || !FanMode::isAutomatic(*mode)) {
        throw FanRefusal(kFanNotAutomatic);
    }
    if (originals_.empty()) {
        const std::optional<double> unlock = tryRead(read_, FanKeys::kUnlock);
        if (unlock && *unlock != 0) {
            throw FanRefusal("风扇控制交接已被占用，请先恢复系统自动");
        }
    }
    return {key, *mode};
}

void AppleSiliconFanControl::take(int fan) {
    const Original original = free(fan);
    originals_.insert_or_assign(fan, original);
    try {
        switchToManual(original.key);
    } catch (const std::exception& cause) {
        try {
            restore(fan, original.key);
        } catch (const std::exception& failure) {
            throw ScopeError(joinFailures({describe(cause), restoreFailure({describe(failure)})}),
                             codeOf(cause));
        }
        throw;
    }
}

void AppleSiliconFanControl::switchToManual(const std::string& key) {
    std::exception_ptr refusal = tryWrite(write_, key, FanMode::kManual);
    if (!refusal) {
        return;
    }
    const double unlock = read_(FanKeys::kUnlock);
    if (!unlockOriginal_) {
        if (unlock != 0) {
            std::rethrow_exception(refusal);  // somebody else's unlock, which is not ours to use
        }
        unlockOriginal_ = unlock;
        write_(FanKeys::kUnlock, kUnlocked);
    }
    const double deadline = now_() + kRetrySeconds;
    for (int round = 0; round < kRetryRounds && now_() < deadline; ++round) {
        wait_();
        refusal = tryWrite(write_, key, FanMode::kManual);
        if (!refusal) {
            return;
        }
    }
    std::rethrow_exception(refusal);
}

void AppleSiliconFanControl::restore(int fan, const std::string& key) {
    const auto held = originals_.find(fan);
    std::exception_ptr failure =
        tryWrite(write_, key, held != originals_.end() ? held->second.mode : FanMode::kAutomatic);

    const bool last = std::all_of(originals_.begin(), originals_.end(),
                                  [&](const auto& entry) { return entry.first == fan; });
    if (last && unlockOriginal_) {
        if (std::exception_ptr refusal = tryWrite(write_, FanKeys::kUnlock, *unlockOriginal_)) {
            failure = refusal;
        } else {
            unlockOriginal_.reset();
        }
    }
    if (confirmRestored(key, last)) {
        // What the controller now says outweighs what a write said.
        originals_.erase(fan);
        return;
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    throw ScopeError("未能确认风扇恢复系统自动");
}

bool AppleSiliconFanControl::confirmRestored(const std::string& key, bool last) {
    const std::optional<double> mode = tryRead(read_, key);
    if (!last) {
        return mode && FanMode::isAutomatic(*mode);
    }
    const std::optional<double> unlock = tryRead(read_, FanKeys::kUnlock);
    if (unlock && unlock == unlockOriginal_) {
        // Locked as it was found, though the write that was to do it failed: the write that was to
        // unlock it had never arrived. Without this a controller whose unlock key cannot be written
        // at all would count as held for ever.
        unlockOriginal_.reset();
    }
    return mode && FanMode::isAutomatic(*mode) && (!unlock || *unlock == 0) && !unlockOriginal_;
}

}  // namespace ferovane
