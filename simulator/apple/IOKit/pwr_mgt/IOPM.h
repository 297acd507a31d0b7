// The keys of the processor's power limits, plain literals. IOPMLib.h does not include this.
#pragma once

#define kIOPMCPUPowerLimitProcessorSpeedKey "CPU_Speed_Limit"
#define kIOPMCPUPowerLimitProcessorCountKey "CPU_Available_CPUs"
#define kIOPMCPUPowerLimitSchedulerTimeKey "CPU_Scheduler_Limit"
