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

// Whether sensors of the chip are switched on: any of them, and any that counts as the processor's.
struct LiveChip {
    bool any = false, processor = false;
};

bool isProcessor(const SMC::SensorKey& sensor) {
    return sensorCategory(sensor.key) == SensorCategory::cpu;
}

// A reading that may stand for "off" does so where its neighbours measure something. For the
// processor these are its own sensors alone: some temperature is better than none.
bool isOff(const SMC::SensorKey& sensor, double reading, const LiveChip& live) {
    return SensorInventory::mayStandForOff(reading) &&
           (isProcessor(sensor) ? live.processor : live.any);
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
    known_.clear();
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
    known_.clear();
    for (auto& sensor : smc_.sensorKeys()) {
        addSensor(std::move(sensor));
    }
    needsDiscovery_ = known_.empty();
    if (needsDiscovery_) {
        // Some controllers refuse to list their keys but answer for those one knows.
        for (const auto key : SensorInventory::kCoreKeys) {
            addSensor({std::string(key), HardwareSensorKind::temperature});
        }
    }
}

void HardwareSampler::addSensor(SMC::SensorKey sensor) {
    std::string label = SensorInventory::label(sensor.key, sensor.kind);
    const bool onChip = SystemCapabilities::appleSilicon() && SensorInventory::onChip(sensor.key);
    known_.push_back({std::move(sensor), std::move(label), onChip});
}

// What cannot be read, or cannot be, is missing from this sample only.
std::optional<double> HardwareSampler::read(const SMC::SensorKey& sensor) const {
    const auto number = smc_.number(sensor.key);
    return number && SensorInventory::valid(sensor.kind, *number) ? number : std::nullopt;
}

void HardwareSampler::sampleSensors(Snapshot& snapshot) const {
    std::vector<std::optional<double>> readings;
    readings.reserve(known_.size());
    LiveChip live;
    for (const auto& [sensor, label, onChip] : known_) {
        const auto reading = readings.emplace_back(read(sensor));
        if (reading && onChip && !SensorInventory::mayStandForOff(*reading)) {
            live.any = true;
            live.processor = live.processor || isProcessor(sensor);
        }
    }
    auto& others = snapshot.additionalSensors.emplace();
    auto reading = readings.begin();
    for (const auto& [sensor, label, onChip] : known_) {
        const auto value = *reading++;
        if (!value || (onChip && isOff(sensor, *value, live))) {
            continue;
        }
        if (sensor.kind == HardwareSensorKind::temperature) {
            snapshot.sensors.push_back({sensor.key, label, *value});
        } else {
            others.push_back({sensor.key, label, sensor.kind, *value});
        }
    }
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
