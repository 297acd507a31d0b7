// The rules of leases, hand-over, curves and history, written a second time and as plainly as they
// can be said. Shares nothing with the code but the plain records.
#pragma once

#include <cmath>
#include <cstdio>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/fan/hand_back.h"
#include "tests/support/fan_world.h"

namespace ferovane::rules {

using testing::FanWorld;

template <class Act>
std::exception_ptr attempt(Act act) {
    try {
        act();
        return nullptr;
    } catch (const std::exception&) {
        return std::current_exception();
    }
}

inline std::optional<double> tryRead(FanWorld& world, const std::string& key) {
    std::optional<double> value;
    attempt([&] { value = world.read(key); });
    return value;
}

inline std::exception_ptr tryWrite(FanWorld& world, const std::string& key, double value) {
    return attempt([&] { world.write(key, value); });
}

// Apple Silicon: how a fan leaves and rejoins system control.
class HandOver {
public:
    explicit HandOver(FanWorld& world) : world_(world) {}

    void setManual(int fan, bool enabled) {
        if (!enabled && held_.count(fan) > 0) {
            giveBack(fan, held_.at(fan).first);
            return;
        }
        std::string key;
        for (const std::string name : {"Md", "md"}) {
            const std::string candidate = "F" + std::to_string(fan) + name;
            if (fan >= 0 && fan <= 9 && key.empty() && tryRead(world_, candidate)) {
                key = candidate;
            }
        }
        if (key.empty()) {
            throw FanRefusal("此风扇没有可识别的 Apple Silicon 模式接口");
        }
        enabled ? take(fan, key) : giveBack(fan, key);
    }

private:
    void take(int fan, const std::string& key) {
        const auto mode = tryRead(world_, key);
        if (mode != 0.0 && mode != 3.0) {
            throw FanRefusal("风扇未处于系统自动，请先退出其他风扇控制程序");
        }
        if (held_.empty() && tryRead(world_, "Ftst").value_or(0) != 0) {
            throw FanRefusal("风扇控制交接已被占用，请先恢复系统自动");
        }
        held_[fan] = {key, *mode};
        try {
            makeManual(key);
        } catch (const std::exception& first) {
            const std::string text = describe(first);
            try {
                giveBack(fan, key);
            } catch (const std::exception& second) {
                throw ScopeError(text + "；恢复自动风扇失败：" + describe(second));
            }
            throw;
        }
    }

    void makeManual(const std::string& key) {
        std::exception_ptr error = tryWrite(world_, key, 1);
        if (!error) {
            return;
        }
        const double unlock = world_.read("Ftst");
        if (!unlocked_ && unlock == 0) {
            unlocked_ = unlock;
            world_.write("Ftst", 1);
        } else if (!unlocked_) {
            std::rethrow_exception(error);
        }
        const double deadline = world_.now() + 4.0;
        for (int round = 1; error && round <= 40 && world_.now() < deadline; ++round) {
            world_.retry();
            error = tryWrite(world_, key, 1);
        }
        if (error) {
            std::rethrow_exception(error);
        }
    }

    void giveBack(int fan, std::string key) {
        std::exception_ptr error =
            tryWrite(world_, key, held_.count(fan) > 0 ? held_.at(fan).second : 0);
        const bool others = held_.size() > held_.count(fan);
        if (!others && unlocked_) {
            const auto lockError = tryWrite(world_, "Ftst", *unlocked_);
            error = lockError ? lockError : error;
            unlocked_ = lockError ? unlocked_ : std::nullopt;
        }
        const auto mode = tryRead(world_, key);
        const auto unlock = others ? 0 : tryRead(world_, "Ftst");
        if (!others && unlock && unlock == unlocked_) {
            unlocked_.reset();  // locked as it was found, whatever the write said
        }
        const bool locked = others || (unlock.value_or(0) == 0 && !unlocked_);
        if (!locked || (mode != 0.0 && mode != 3.0)) {
            std::rethrow_exception(
                error ? error : std::make_exception_ptr(ScopeError("未能确认风扇恢复系统自动")));
        }
        held_.erase(fan);
    }

    FanWorld& world_;
    std::map<int, std::pair<std::string, double>> held_;  // key, and mode before
    std::optional<double> unlocked_;                      // what "Ftst" was before it was unlocked
};

inline std::string restoreAuto(const std::vector<FanReading>& fans, FanWorld& world) {
    std::string causes;
    bool failed = false;
    for (const FanReading& fan : fans) {
        std::string cause;
        try {
            world.setManual(fan.id, false);
            continue;
        } catch (const ScopeError& error) {
            cause = error.message();
        } catch (const std::exception& error) {
            cause = "F" + std::to_string(fan.id) + "Md：" + describe(error);
        } catch (...) {
        }
        causes += (causes.empty() && !cause.empty() ? "：" : cause.empty() ? "" : "；") + cause;
        failed = true;
    }
    return failed ? "恢复自动风扇失败" + causes : "";
}

template <class Act>
void handBackAfter(const std::vector<FanReading>& fans, FanWorld& world, Act act) {
    try {
        act();
    } catch (...) {
        restoreAuto(fans, world);
        throw;
    }
    if (const std::string failure = restoreAuto(fans, world); !failure.empty()) {
        throw ScopeError(failure);
    }
}

inline bool within(std::optional<double> value, double low, double high) {
    return value && std::isfinite(*value) && low <= *value && *value <= high;
}

inline std::optional<double> targetOf(int fan, FanWorld& world) {
    std::optional<double> target;
    attempt([&] { target = world.target(fan); });
    return target;
}

// The fans a lease takes; a curve has to know every rating, and takes no minimum of 0.
inline std::vector<FanReading> admitted(FanWorld& world, bool curve) {
    const std::vector<FanReading> fans = world.fans();
    bool free = !fans.empty(), rated = true, inRange = true;
    for (const FanReading& fan : fans) {
        free = free && fan.controllable && fan.manual == false &&
               (!curve || (fan.minimum && fan.maximum));
        rated = rated && within(fan.maximum, 0, 12000) && fan.maximum != 0.0 &&
                within(fan.minimum, 0, *fan.maximum) && !(curve && fan.minimum == 0.0);
    }
    if (!free) {
        throw ScopeError(curve ? "请先恢复系统自动风扇并退出其他控制程序"
                               : "请先恢复系统自动风扇并退出其他风扇控制软件；也可能是此机型没有可"
                                 "写的风扇接口。");
    }
    if (!rated) {
        throw ScopeError(curve ? "无法验证风扇额定范围" : "风扇额定转速无法验证，已拒绝控制");
    }
    for (const FanReading& fan : fans) {
        inRange = inRange && within(targetOf(fan.id, world), *fan.minimum, *fan.maximum);
    }
    if (!inRange) {
        throw ScopeError("风扇当前目标转速无法验证，已拒绝切换手动模式");
    }
    return fans;
}

inline bool allHeld(const std::vector<FanReading>& plan, const std::map<int, double>& written,
                    double tolerance, FanWorld& world) {
    std::map<int, bool> manual;
    attempt([&] {
        for (const FanReading& fan : world.fans()) {
            manual.emplace(fan.id, fan.manual == true);
        }
    });
    for (const FanReading& fan : plan) {
        const auto target = manual[fan.id] ? targetOf(fan.id, world) : std::nullopt;
        if (!target || !(std::abs(*target - written.at(fan.id)) < tolerance)) {
            return false;
        }
    }
    return true;
}

// A clock that is before the start, or no number, ends a lease too.
struct Span {
    double start, end;
    bool over(double time) const { return !(start <= time && time < end); }
    double left(double time) const { return time < end ? end - time : 0; }
};

inline void cool(FanWorld& world, double duration) {
    if (!(duration > 0) || duration > 300) {
        throw ScopeError("散热会话必须在 5 分钟以内");
    }
    if (world.isCancelled()) {
        return;
    }
    const std::vector<FanReading> fans = admitted(world, false);
    std::map<int, double> full;
    for (const FanReading& fan : fans) {
        full[fan.id] = *fan.maximum;
    }
    const double start = world.now();
    const Span span{start, start + duration};
    handBackAfter(fans, world, [&] {
        for (const FanReading& fan : fans) {
            if (world.isCancelled() || span.over(world.now())) {
                throw ScopeError("散热会话已取消或超时");
            }
            world.setManual(fan.id, true);
            world.setTarget(fan.id, *fan.maximum);
        }
        while (!span.over(world.now()) && !world.isCancelled()) {
            if (!allHeld(fans, full, 2.0, world)) {
                throw ScopeError("检测到风扇状态改变或无法读取，散热会话已停止");
            }
            world.wait(span.left(world.now()));
        }
    });
}

inline std::optional<double> hottest(const Snapshot& snapshot, const std::string& prefix) {
    std::optional<double> most;
    for (const SensorReading& sensor : snapshot.sensors) {
        if (sensor.key.substr(0, 2) == prefix && !std::isnan(sensor.celsius)) {
            most = most ? std::fmax(*most, sensor.celsius) : sensor.celsius;
        }
    }
    return most;
}

inline std::optional<double> followed(CurveSensor sensor, const Snapshot& snapshot) {
    const auto cpu = hottest(snapshot, "TC"), gpu = hottest(snapshot, "TG");
    if (sensor == CurveSensor::cpu || (sensor == CurveSensor::hottest && !gpu)) {
        return cpu;
    }
    return sensor == CurveSensor::gpu || !cpu ? gpu : std::fmax(*cpu, *gpu);
}

inline bool isHot(const Snapshot& snapshot) {
    return hottest(snapshot, "TC").value_or(0) >= 92 || hottest(snapshot, "TG").value_or(0) >= 88 ||
           hottest(snapshot, "TH").value_or(0) >= 75 || snapshot.thermalState == 2 ||
           snapshot.thermalState == 3;
}

inline bool isHotAndSlow(const Snapshot& snapshot) {
    bool slow = isHot(snapshot) && !snapshot.fans.empty();
    for (const FanReading& fan : snapshot.fans) {
        slow = slow && within(fan.minimum, 0, 1e300) && within(fan.maximum, 0, 1e300) &&
               *fan.maximum > *fan.minimum &&
               within(fan.rpm, 0, *fan.minimum + 0.1 * (*fan.maximum - *fan.minimum));
    }
    return slow;
}

inline void validate(const std::vector<CurvePoint>& points) {
    if (points.size() < 2 || points.size() > 8) {
        throw ScopeError("曲线需要 2 至 8 个控制点");
    }
    for (std::size_t i = 0; i < points.size(); ++i) {
        if (!within(points[i].temperature, 30, 100) || !within(points[i].percent, 0, 100)) {
            throw ScopeError("曲线温度范围为 30–100°C，转速范围为 0–100%");
        }
        if (i > 0 && (points[i].temperature < points[i - 1].temperature + 2.0 ||
                      points[i].percent < points[i - 1].percent)) {
            throw ScopeError("温度控制点至少间隔 2°C，转速必须随温度升高而不降低");
        }
    }
    if (points.back().temperature > 90 || points.back().percent != 100) {
        throw ScopeError("最后一个点必须在 90°C 或更低达到 100% 转速");
    }
}

inline double percent(const std::vector<CurvePoint>& points, double celsius) {
    if (points.empty() || !std::isfinite(celsius)) {
        return 100;
    }
    if (celsius <= points.front().temperature || celsius >= points.back().temperature) {
        return (celsius <= points.front().temperature ? points.front() : points.back()).percent;
    }
    std::size_t i = 1;
    while (points[i].temperature < celsius) {
        ++i;
    }
    const CurvePoint &from = points[i - 1], &to = points[i];
    return from.percent + (to.percent - from.percent) * (celsius - from.temperature) /
                              (to.temperature - from.temperature);
}

inline FanCurve manual(double percent) {
    const double held = std::isfinite(percent) ? std::fmin(std::fmax(percent, 0), 100) : 100;
    return {{{30, held}, {80, held}, {90, 100}}, CurveSensor::hottest};
}

inline double percent(double rpm, double minimum, double maximum) {
    if (!std::isfinite(rpm) || !std::isfinite(minimum) || !std::isfinite(maximum) ||
        !(minimum < maximum)) {
        return 0;
    }
    return std::fmin(std::fmax((rpm - minimum) / (maximum - minimum) * 100, 0), 100);
}

inline void follow(FanWorld& world, const FanCurve& curve, double duration) {
    validate(curve.points);
    if (!(duration > 0) || duration > 1800) {
        throw ScopeError("曲线会话最长 30 分钟");
    }
    if (world.isCancelled()) {
        return;
    }
    const std::vector<FanReading> fans = admitted(world, true);
    const double start = world.now();
    const Span span{start, start + duration};
    if (span.over(world.now()) || world.isCancelled()) {
        return;
    }
    handBackAfter(fans, world, [&] {
        std::map<int, double> written;
        double speed = 0;
        for (bool first = true; first || (!span.over(world.now()) && !world.isCancelled());
             first = false) {
            const Snapshot snapshot = world.sample();
            const auto celsius = followed(curve.sensor, snapshot);
            if (!hottest(snapshot, "TC") || !celsius || !std::isfinite(*celsius)) {
                throw ScopeError("控制温度传感器不可用，已停止曲线并恢复系统自动");
            }
            if (!first && !allHeld(fans, written, 3.0, world)) {
                throw ScopeError("风扇控制被改变或无法读取，已停止曲线");
            }
            const double desired = isHot(snapshot) ? 100 : percent(curve.points, *celsius);
            speed = first ? desired : std::fmax(desired, speed - 4.0);
            for (const FanReading& fan : fans) {
                if (first) {
                    world.setManual(fan.id, true);
                }
                const double rpm = *fan.minimum + (*fan.maximum - *fan.minimum) * speed / 100;
                if (first || std::abs(rpm - written[fan.id]) >= 30.0) {
                    world.setTarget(fan.id, rpm);
                    written[fan.id] = rpm;
                }
            }
            FanControlProgress progress{span.end, {}, isHot(snapshot)};
            for (const auto& [id, rpm] : written) {
                progress.targets.push_back({id, rpm});
            }
            world.update(progress);
            if (first) {
                world.applied();
            }
            world.wait(span.left(world.now()));
        }
    });
}

}  // namespace ferovane::rules
