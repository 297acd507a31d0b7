#include "core/hardware/hardware_sampler.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "core/hardware/sensor_inventory.h"
#include "core/hardware/system_capabilities.h"
#include "shim/fv.h"

namespace ferovane {
namespace {

// Asking for the loaded extensions is slow, and they change only when somebody changes them.
constexpr int kSamplesPerTurboQuery = 5;

std::optional<CPUCounters> processorTicks() {
    std::uint64_t user = 0, system = 0, idle = 0, nice = 0;
    if (fv_cpu_ticks(&user, &system, &idle, &nice) != 0) {
        return std::nullopt;
    }
    // Differences are taken modulo 2^32, so the upper halves do not matter.
    const auto low = [](std::uint64_t ticks) { return static_cast<std::uint32_t>(ticks); };
    return CPUCounters{low(user), low(system), low(idle), low(nice)};
}

TurboState turboState() {
    switch (fv_turbo_driver_state()) {
        case 1:
            return TurboState::disabledDriverLoaded;
        case 0:
            return TurboState::driverNotLoaded;
        default:
            return TurboState::unknown;
    }
}

std::optional<int> percentage(int value) {
    return value >= 0 && value <= 100 ? std::optional(value) : std::nullopt;
}

std::optional<int> notNegative(int value) {
    return value >= 0 ? std::optional(value) : std::nullopt;
}

HardwareSensorKind kindOf(const SensorReading&) {
    return HardwareSensorKind::temperature;
}

HardwareSensorKind kindOf(const HardwareSensorReading& sensor) {
    return sensor.kind;
}

// Reads every known sensor; what cannot be read, or cannot be, is missing from this sample only.
template <class Reading>
void appendReadings(const SMC& smc, const std::vector<Reading>& known, double Reading::*value,
                    std::vector<Reading>& readings) {
    readings.reserve(known.size());
    for (const auto& sensor : known) {
        const auto number = smc.number(sensor.key);
        if (number && SensorInventory::valid(kindOf(sensor), *number)) {
            readings.emplace_back(sensor).*value = *number;
        }
    }
}

void samplePower(Snapshot& snapshot) {
    const FVPowerStatus status = fv_power_status();
    snapshot.speedLimit = percentage(status.speed_limit);
    snapshot.schedulerLimit = percentage(status.scheduler_limit);
    snapshot.availableCPUs = notNegative(status.available_cpus);
    snapshot.thermalWarning = notNegative(status.thermal_warning);
    const int acPower = fv_ac_power();
    if (acPower >= 0) {
        snapshot.acPower = acPower == 1;
    }
    snapshot.lowPower = SystemCapabilities::lowPowerMode() && fv_low_power_mode() == 1;
}

}  // namespace

HardwareSampler::HardwareSampler(std::function<Date()> clock) : clock_(std::move(clock)) {}

Snapshot HardwareSampler::sample() {
    const std::lock_guard lock(mutex_);
    Snapshot snapshot;
    sampleProcessorUse(snapshot);
    if (needsDiscovery_) {
        discoverSensors();
    }
    sampleSensors(snapshot);
    sampleTurbo(snapshot);
    samplePower(snapshot);
    snapshot.date = clock_();
    snapshot.fans = smc_.fans();
    snapshot.smcAvailable = smc_.available();
    snapshot.totalCPUs = std::max(fv_processor_count(), 0);
    snapshot.thermalState = fv_thermal_state();
    snapshot.memoryPressure = fromRawValue<MemoryPressure>(fv_memory_pressure());
    return snapshot;
}

void HardwareSampler::reset() {
    const std::lock_guard lock(mutex_);
    previous_.reset();
    smc_.reopen();
    temperatures_.clear();
    others_.clear();
    needsDiscovery_ = true;
}

void HardwareSampler::refreshTurbo() {
    const std::lock_guard lock(mutex_);
    ticks_ = 0;
}

void HardwareSampler::sampleProcessorUse(Snapshot& snapshot) {
    const auto ticks = processorTicks();
    if (!ticks) {
        return;
    }
    if (previous_) {
        snapshot.cpuUsage = ticks->usage(*previous_);
    }
    previous_ = ticks;
}

void HardwareSampler::discoverSensors() {
    for (auto& sensor : smc_.sensorKeys()) {
        addSensor(std::move(sensor.key), sensor.kind);
    }
    if (temperatures_.empty() && others_.empty()) {
        // Some controllers refuse to list their keys but answer for those one knows.
        for (const auto key : SensorInventory::kCoreKeys) {
            addSensor(std::string(key), HardwareSensorKind::temperature);
        }
    }
    needsDiscovery_ = false;
}

void HardwareSampler::addSensor(std::string key, HardwareSensorKind kind) {
    std::string label = SensorInventory::label(key, kind);
    if (kind == HardwareSensorKind::temperature) {
        temperatures_.push_back({std::move(key), std::move(label), 0});
    } else {
        others_.push_back({std::move(key), std::move(label), kind, 0});
    }
}

void HardwareSampler::sampleSensors(Snapshot& snapshot) const {
    appendReadings(smc_, temperatures_, &SensorReading::celsius, snapshot.sensors);
    appendReadings(smc_, others_, &HardwareSensorReading::value,
                   snapshot.additionalSensors.emplace());
}

void HardwareSampler::sampleTurbo(Snapshot& snapshot) {
    if (ticks_ % kSamplesPerTurboQuery == 0) {
        turbo_ = turboState();
    }
    // Only the position within the five matters, and a count of all samples would overflow.
    ticks_ = (ticks_ + 1) % kSamplesPerTurboQuery;
    snapshot.turbo = turbo_;
}

}  // namespace ferovane
