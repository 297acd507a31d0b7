#include "tests/faults/sweep.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace ferovane::testing {
namespace {

constexpr std::uint64_t kEverydaySeed = 20260;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

}  // namespace

std::uint64_t faultSeed() {
    const std::string text = variable("FEROVANE_FAULT_SEED");
    return text.empty() ? kEverydaySeed : std::stoull(text);
}

FaultShare faultShare() {
    if (variable("FEROVANE_FAULT_SHARE") == "all") {
        return FaultShare::kAll;
    }
    return kSanitized ? FaultShare::kSmall : FaultShare::kEveryday;
}

Sweep::Sweep(const MachineKind& machine, int fans, std::uint64_t purpose)
    : machine_(machine), fans_(fans), random_(faultSeed() + purpose) {
    for (const Flow& flow : flows()) {
        if (!flow.intelOnly || !machine.appleSilicon) {
            flows_.push_back(&flow);
        }
    }
}

std::vector<std::uint64_t> Sweep::positions(const FaultKind& kind, const Flow& flow,
                                            const std::vector<Call>& calls, std::size_t most,
                                            std::size_t from) {
    std::vector<std::uint64_t> possible;
    for (std::size_t i = from; i < calls.size(); ++i) {
        if (kind.canStrike(calls[i], flow)) {
            possible.push_back(i + 1);
        }
    }
    if (possible.size() <= most) {
        return possible;
    }
    std::vector<std::uint64_t> chosen;
    for (std::size_t part = 0; part < most; ++part) {
        const std::size_t first = part * possible.size() / most;
        const std::size_t end = (part + 1) * possible.size() / most;
        chosen.push_back(possible[first + below(end - first)]);
    }
    return chosen;
}

Outcome Sweep::tryCase(const FaultCase& faultCase, const Outcome& undisturbed,
                       const std::string& kind) {
    const Outcome outcome = run(faultCase);
    tally.complain(faultCase.name(), outcome.complaints);
    const bool differed = outcome.calls != undisturbed.calls ||
                          outcome.status != undisturbed.status ||
                          outcome.leftManual != undisturbed.leftManual;
    const bool fired =
        outcome.fired == faultCase.strikes.size() && (!faultCase.memory || outcome.memoryFailed);
    tally.count(kind, {.fired = fired,
                       .differed = differed,
                       .leftManual = outcome.leftManual,
                       .liedTo = outcome.liedTo});
    firstStrikes += outcome.fired > 0;
    return outcome;
}

void Sweep::report() const {
    tally.print(machine_.name + ", fans: " + std::to_string(fans_) + ", seed " +
                std::to_string(faultSeed()));
    for (const std::string& failure : tally.failures()) {
        ADD_FAILURE() << failure;
    }
}

}  // namespace ferovane::testing
