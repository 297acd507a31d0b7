#include "core/analysis/machine_health.h"

#include <algorithm>
#include <iterator>

namespace ferovane {

MachineHealth::MachineHealth(HealthRecord saved)
    : fans_(saved.fans), sensors_(saved.sensors), trend_(std::move(saved.trend)) {}

void MachineHealth::add(const Snapshot& snapshot, std::span<const FanTarget> targets) {
    std::vector<FanSample> fans;
    for (const FanReading& fan : snapshot.fans) {
        const auto target = std::ranges::find(targets, fan.id, &FanTarget::id);
        fans.push_back({fan.id, target == targets.end() ? std::nullopt : std::optional(target->rpm),
                        fan.rpm, fan.maximum});
    }
    fans_.add(snapshot.date, fans);
    sensors_.add(snapshot);
    trend_.add(heatSample(snapshot, targets));
    fans_.noteTurning(trend_.turning());
}

void MachineHealth::cleaned() {
    fans_ = {};
    trend_.restart();
}

std::vector<HealthFinding> MachineHealth::findings() const {
    std::vector<HealthFinding> list = fans_.findings();
    std::ranges::move(sensors_.findings(), std::back_inserter(list));
    std::ranges::move(trend_.findings(), std::back_inserter(list));
    return list;
}

HealthRecord MachineHealth::record() const {
    return {fans_.habits(), sensors_.habits(), trend_.record()};
}

}  // namespace ferovane
