// A machine made of plain answers, in place of the simulated one.
#pragma once

#include "simulator/apple/attached_machine.h"

struct FakeAttachedMachine final : simulator::AttachedMachine {
    FakeAttachedMachine();  // attached while it lives, one at a time
    ~FakeAttachedMachine() override;
    FakeAttachedMachine(const FakeAttachedMachine&) = delete;
    FakeAttachedMachine& operator=(const FakeAttachedMachine&) = delete;

    std::string cpuBrand() override { return "Some Chip Max"; }
    bool appleSilicon() override { return arm; }
    std::string systemVersion() override { return "14.2.1"; }
    int processorCount() override { return 37; }
    int thermalState() override { return 2; }
    std::optional<bool> lowPowerMode() override { return lowPower; }
    int memoryPressureLevel() override { return 4; }
    double continuousSeconds(double hostSeconds) override { return hostSeconds + sleptSeconds; }
    double uptimeSeconds(double hostSeconds) override { return hostSeconds; }
    std::string root() override { return directory; }

    bool arm = true;
    std::optional<bool> lowPower = true;
    double sleptSeconds = 0;
    std::string directory;
};
