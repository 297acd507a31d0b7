#include "core/fan/lease_obstacles.h"

#include <exception>
#include <utility>

#include "core/fan/cooling_lease.h"
#include "core/fan/curve_lease.h"
#include "core/fan/fan_keys.h"
#include "core/fan/fan_rehearsal.h"
#include "core/fan/lease_obstacle.h"
#include "core/model/scope_error.h"

namespace ferovane {
namespace {

using Kind = LeaseObstacleKind;

constexpr double kRehearsedSeconds = 1;  // both leases accept it

// What the lease says on these fans; absent when it does not refuse.
std::optional<std::string> rehearse(LeaseKind lease, FanRehearsal& fans, const FanCurve& curve,
                                    const Snapshot& sample) {
    const auto now = [] { return 0.0; };
    const auto wait = [] {};
    const auto isCancelled = [&] { return fans.allDriven(); };
    try {
        if (lease == LeaseKind::cooling) {
            CoolingLease::run(fans, kRehearsedSeconds, now, isCancelled, wait);
        } else {
            CurveLease::run(
                fans, curve, kRehearsedSeconds, [&] { return sample; }, now, isCancelled, wait,
                [](const FanControlProgress&) {}, [] {});
        }
        return std::nullopt;
    } catch (const std::exception& error) {
        return describe(error);
    }
}

// A sample that no lease finds fault with, for asking about a fan alone.
Snapshot mildSample() {
    Snapshot sample;
    sample.sensors = {{"TC0P", {}, 50}, {"TG0P", {}, 50}};
    return sample;
}

// A fan that no lease finds fault with, for asking about a sample alone.
class FlawlessFan : public CoolingHardware {
public:
    std::vector<FanReading> fans() override {
        return {{0, kMinimum, kMinimum, kMaximum, false, true}};
    }
    std::optional<double> target(int) override { return kMinimum; }
    void setTarget(int, double) override {}
    void setManual(int, bool) override {}

private:
    static constexpr double kMinimum = 1000;  // rpm
    static constexpr double kMaximum = 2000;
};

class Forecaster {
public:
    Forecaster(const ReadableFans& machine, const FanCurve& curve, const Snapshot& sample)
        : machine_(machine),
          curve_(curve),
          sample_(sample),
          readings_(machine.hardware, machine.number) {}

    LeaseForecast forecast(LeaseKind lease) {
        LeaseForecast forecast;
        forecast.lease = lease;
        forecast.message = rehearseAll(lease, std::nullopt);
        if (lease == LeaseKind::curve) {
            addCurve(forecast);
        }
        addFans(forecast);
        if (lease == LeaseKind::curve) {
            addTemperature(forecast);
        }
        if (!forecast.message && machine_.appleSilicon && readings_.number(FanKeys::kUnlock)) {
            addLock(forecast);
        }
        return forecast;
    }

private:
    std::optional<std::string> rehearseAll(LeaseKind lease,
                                           std::optional<std::string> lockRefusal) {
        FanRehearsal fans(readings_, {machine_.appleSilicon, std::move(lockRefusal), {}});
        return rehearse(lease, fans, curve_, sample_);
    }

    static void add(LeaseForecast& forecast, Kind kind, const std::string& message) {
        forecast.obstacles.push_back({kind, {}, {}, {}, {}, message});
    }

    void addCurve(LeaseForecast& forecast) const {
        try {
            curve_.validate();
        } catch (const ScopeError& error) {
            add(forecast, Kind::invalidCurve, error.message());
        }
    }

    // Asks about every fan alone.
    void addFans(LeaseForecast& forecast) {
        const std::vector<FanReading> fans = listedFans();
        for (const FanReading& fan : fans) {
            FanRehearsal alone(readings_, {machine_.appleSilicon, {}, fan.id});
            const auto refusal =
                rehearse(forecast.lease, alone, FanCurve::balanced(), mildSample());
            if (refusal) {
                forecast.obstacles.push_back(explainRefusal(forecast.lease, fan, readings_));
                forecast.obstacles.back().message = *refusal;
            }
        }
        if (fans.empty()) {
            FanRehearsal none(readings_, {machine_.appleSilicon, {}, {}});
            const auto refusal = rehearse(forecast.lease, none, FanCurve::balanced(), mildSample());
            add(forecast, Kind::noFans, refusal.value_or(std::string()));
        }
    }

    void addTemperature(LeaseForecast& forecast) const {
        FanCurve curve = FanCurve::balanced();
        curve.sensor = curve_.sensor;
        FlawlessFan fan;
        FanReadings readings(fan, [](const std::string&) { return std::nullopt; });
        FanRehearsal fans(readings, {});
        if (const auto refusal = rehearse(LeaseKind::curve, fans, curve, sample_)) {
            add(forecast, Kind::noControlTemperature, *refusal);
        }
    }

    std::vector<FanReading> listedFans() {
        try {
            return readings_.fans();
        } catch (const ScopeError&) {
            return {};  // the lease's own message, which is in the forecast, says so
        }
    }

    void addLock(LeaseForecast& forecast) {
        forecast.message = rehearseAll(forecast.lease, machine_.unlockRefusal);
        forecast.certain = false;
        for (const FanReading& fan : listedFans()) {
            forecast.obstacles.push_back({Kind::handOverLocked, fan.id, FanKeys::kUnlock,
                                          readings_.number(FanKeys::kUnlock), std::nullopt,
                                          forecast.message.value_or(std::string())});
        }
    }

    const ReadableFans& machine_;
    const FanCurve& curve_;
    const Snapshot& sample_;
    FanReadings readings_;
};

}  // namespace

namespace LeaseObstacles {

std::array<LeaseForecast, 2> forecast(const ReadableFans& machine, const FanCurve& curve,
                                      const Snapshot& sample) {
    Forecaster forecaster(machine, curve, sample);
    LeaseForecast cooling = forecaster.forecast(LeaseKind::cooling);
    return {std::move(cooling), forecaster.forecast(LeaseKind::curve)};
}

}  // namespace LeaseObstacles
}  // namespace ferovane
