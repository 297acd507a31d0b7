// Thermal levels and the keys of the processor's power limits. IOPMLib.h does not include this.
#pragma once

enum {
    kIOPMThermalLevelNormal = 0,
    kIOPMThermalLevelDanger = 5,
    kIOPMThermalLevelCritical = 10,
    kIOPMThermalLevelWarning = 100,
    kIOPMThermalLevelTrap = 110,
    kIOPMThermalLevelUnknown = 255
};

#define kIOPMThermalWarningLevelNormal kIOPMThermalLevelNormal
#define kIOPMThermalWarningLevelDanger kIOPMThermalLevelWarning
#define kIOPMThermalWarningLevelCrisis kIOPMThermalLevelCritical

// Plain literals.
#define kIOPMCPUPowerLimitProcessorSpeedKey "CPU_Speed_Limit"
#define kIOPMCPUPowerLimitProcessorCountKey "CPU_Available_CPUs"
#define kIOPMCPUPowerLimitSchedulerTimeKey "CPU_Scheduler_Limit"
