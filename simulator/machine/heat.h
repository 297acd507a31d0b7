// Heat: what load, fans and the room make of a machine's temperatures.
//
// Powers are fractions of the processor's power at full load, so that one set of figures serves
// every machine: processor -> die -> heat sink -> air moved by the fans, with the enclosure, the
// battery and the storage behind the sink. All nodes relax exponentially, so steps of any size are
// stable and nothing ever overshoots its equilibrium.
#pragma once

#include "simulator/machine/world.h"

namespace simulator::Heat {

struct Figures {
    double dieAtRest = 50;    // °C, as in the key dump
    double ambient = 25;      // °C
    double idleFraction = 0;  // of full processor power; 0: what the dump shows is idle
    double fullWatts = 45;    // of the processor
    double graphicsWatts = 25;
    double totalWattsAtRest = 10;
};

// Makes the present state the state of rest: fans as they are, temperatures in equilibrium, the
// load at which the die has the temperature of the dump. Sets the properties load and ambient.
void calibrate(World& world, const Figures& figures);

// Lets dt seconds of heat pass. dt is short (a quarter of a second at most).
void step(World& world, double dt);

// The equilibrium of the present load and fan speeds, at once.
void settle(World& world);

// 0 nominal to 3 critical, as the operating system judges the die.
int thermalState(const HeatState& heat);

}  // namespace simulator::Heat
