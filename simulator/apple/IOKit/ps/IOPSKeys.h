// Keys and values of a power-source description; plain literals.
#pragma once

#define kIOPSNameKey "Name"
#define kIOPSTypeKey "Type"
#define kIOPSTransportTypeKey "Transport Type"
#define kIOPSPowerSourceStateKey "Power Source State"
#define kIOPSCurrentCapacityKey "Current Capacity"
#define kIOPSMaxCapacityKey "Max Capacity"
#define kIOPSIsChargingKey "Is Charging"
#define kIOPSIsPresentKey "Is Present"

#define kIOPSInternalBatteryType "InternalBattery"
#define kIOPSUPSType "UPS"
#define kIOPSInternalType "Internal"

#define kIOPSACPowerValue "AC Power"
#define kIOPSBatteryPowerValue "Battery Power"
