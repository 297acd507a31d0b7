// The machine's state, one Snapshot per call.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/hardware/smc.h"
#include "core/model/date.h"
#include "core/model/hardware_sensor.h"
#include "core/model/snapshot.h"

namespace ferovane {

// Finds the sensors with its first sample and from then on reads only those; a search that found
// nothing is made again with the next sample. Every operation may be called from any thread and
// waits for the one that is running.
class HardwareSampler {
public:
    // clock: the wall clock, for the snapshots' dates.
    explicit HardwareSampler(std::function<Date()> clock = &Date::now);

    // Never fails: what cannot be had is absent. The processor use is that since the previous
    // sample, so the first one has none. A system that tells no thermal state or processor count
    // leaves the former outside 0 to 3 (unknown) and the latter 0.
    Snapshot sample();

    // For a session that starts afresh: the controller is opened again, and the next sample finds
    // the sensors anew and has no processor use. The turbo driver keeps its turn.
    void reset();

    // The next sample asks for the turbo driver again; to be called after switching it.
    void refreshTurbo();

private:
    struct KnownSensor {
        SMC::SensorKey sensor;
        std::string label;
        bool onChip;  // SensorInventory::onChip, on Apple Silicon
    };

    void sampleProcessorUse(Snapshot& snapshot);
    void discoverSensors();
    void addSensor(SMC::SensorKey sensor);
    std::optional<double> read(const SMC::SensorKey& sensor) const;
    void sampleSensors(Snapshot& snapshot) const;
    void sampleTurbo(Snapshot& snapshot);

    std::mutex mutex_;  // held by every operation for its whole run; guards all that follows
    std::function<Date()> clock_;
    SMC smc_;
    std::optional<CPUCounters> previous_;
    std::vector<KnownSensor> known_;  // by key
    bool needsDiscovery_ = true;
    int ticks_ = 0;  // samples since the turbo driver was to be asked for
    TurboState turbo_ = TurboState::unknown;
};

}  // namespace ferovane
