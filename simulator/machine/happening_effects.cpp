#include "simulator/machine/happening_effects.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "simulator/machine/fans.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"

namespace simulator::HappeningEffects {
namespace {

void writeMode(World& world, std::size_t fan, std::uint32_t mode) {
    WorldState& state = world.state();
    if (state.controller == ControllerKind::kForcedMask) {
        const std::uint32_t bit = 1U << fan;
        writeAsOther(world, packed("FS! "),
                     mode == 1 ? state.forcedMask | bit : state.forcedMask & ~bit);
    } else if (!writeAsOther(world, fanKey(fan, "Md"), mode)) {
        writeAsOther(world, fanKey(fan, "md"), mode);
    }
}

void setProperty(World& world, const FaultRecord& happening) {
    const auto property = static_cast<Property>(happening.property);
    world.property(property) = {happening.number, static_cast<PropertyForm>(happening.form), 0};
    char line[64];
    const auto name = propertyName(property);
    if (happening.form == static_cast<std::uint32_t>(PropertyForm::kNumber)) {
        std::snprintf(line, sizeof line, "%.*s=%.10g", static_cast<int>(name.size()), name.data(),
                      happening.number);
    } else {
        std::snprintf(line, sizeof line, "%.*s=%s", static_cast<int>(name.size()), name.data(),
                      happening.form == static_cast<std::uint32_t>(PropertyForm::kAbsent) ? "absent"
                                                                                          : "text");
    }
    world.note(kOutsideWorld, line);
}

void sleep(World& world, double seconds) {
    WorldState& state = world.state();
    state.sleptSeconds += seconds;
    state.machineSeconds += seconds;
    char line[48];
    std::snprintf(line, sizeof line, "slept %.10g s", seconds);
    world.note(kOutsideWorld, line);
    Fans::wake(world);
}

// No program is quicker, and a machine must not spend all of its time on one.
constexpr double kShortestPeriodSeconds = 0.01;

void keepTarget(World& world, std::size_t fan, double rpm, double seconds) {
    const double period = seconds > 0 ? std::max(seconds, kShortestPeriodSeconds) : 0;
    FanRecord& record = world.state().fans[fan];
    record.rivalTarget = rpm;
    record.rivalPeriod = period;
    record.rivalNextTime = period > 0 ? world.state().machineSeconds + period : 0;
    writeMode(world, fan, 1);
    writeAsOther(world, fanKey(fan, "Tg"), rpm);
}

void applyToFan(World& world, const FaultRecord& happening) {
    const auto fan = static_cast<std::size_t>(happening.fan);
    if (happening.fan < 0 || fan >= world.state().fanCount) {
        return;
    }
    FanRecord& record = world.state().fans[fan];
    switch (static_cast<FaultKind>(happening.kind)) {
        case FaultKind::kVanishFan:
            record.vanished = 1;
            world.note(kOutsideWorld, "fan " + std::to_string(fan) + " vanished");
            break;
        case FaultKind::kTakeFan:
            writeMode(world, fan, 1);
            writeAsOther(world, fanKey(fan, "Tg"), record.maximum);
            break;
        case FaultKind::kReleaseFan:
            writeMode(world, fan, 0);
            break;
        case FaultKind::kDriftTarget:
            writeAsOther(world, fanKey(fan, "Tg"), record.target + happening.number);
            break;
        case FaultKind::kKeepTarget:
            keepTarget(world, fan, happening.number, happening.seconds);
            break;
        default:
            break;
    }
}

}  // namespace

bool writeAsOther(World& world, std::uint32_t code, double number) {
    KeyRecord* key = KeyTable::find(world, code);
    ValueBytes bytes = {};
    if (key == nullptr || !KeyTable::encode(*key, number, bytes)) {
        return false;
    }
    if (key->role == KeyRole::kUnlock) {
        Fans::write(world, *key, bytes.data());  // the lock notices whoever turns it
    } else {
        KeyTable::store(world, *key, bytes.data());
    }
    Fans::recordHolder(world.state(), kHeldByOther);
    char line[48];
    std::snprintf(line, sizeof line, "write %s=%.10g -> 00", unpacked(code).c_str(), number);
    world.note(kOtherProgram, line);
    return true;
}

void apply(World& world, const FaultRecord& happening) {
    switch (static_cast<FaultKind>(happening.kind)) {
        case FaultKind::kOtherWrites:
            writeAsOther(world, happening.key, happening.number);
            break;
        case FaultKind::kHoldUnlock:
            writeAsOther(world, packed("Ftst"), happening.number);
            break;
        case FaultKind::kSet:
            setProperty(world, happening);
            break;
        case FaultKind::kSleep:
            sleep(world, happening.seconds);
            break;
        case FaultKind::kClearFaults:
            Faults::clear(world);
            world.note(kOutsideWorld, "faults cleared");
            break;
        default:
            applyToFan(world, happening);
            break;
    }
}

}  // namespace simulator::HappeningEffects
