#include "simulator/machine/happenings.h"

#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "simulator/machine/faults.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/machine_directory.h"

namespace simulator {
namespace {

// What a happening is made of; the rest of the record stays zero.
struct Parts {
    FaultKind kind;
    std::string_view key = {};
    int code = 0;
    int times = kForGood;
    int fan = 0;
    double number = 0;
    double seconds = 0;
    std::string_view tool = {};
    std::string_view text = {};
};

template <std::size_t kSize>
void copyText(std::string_view text, char (&into)[kSize]) {
    if (text.size() >= kSize) {
        throw std::runtime_error("too long for a fault: " + std::string(text));
    }
    text.copy(into, text.size());
}

FaultRecord record(const Parts& parts, const Moment& moment) {
    FaultRecord fault = {};
    fault.kind = static_cast<std::uint32_t>(parts.kind);
    fault.momentKind = static_cast<std::uint32_t>(moment.kind);
    fault.momentSeconds = moment.seconds;
    fault.momentCount = moment.count;
    fault.key = parts.key.empty() ? 0 : packed(parts.key);
    fault.code = parts.code;
    fault.times = parts.times;
    fault.fan = parts.fan;
    fault.number = parts.number;
    fault.seconds = parts.seconds;
    fault.form = static_cast<std::uint32_t>(PropertyForm::kNumber);
    copyText(parts.tool, fault.tool);
    copyText(parts.text, fault.text);
    return fault;
}

void befall(Machine& machine, const Moment& moment, const Parts& parts) {
    const FaultRecord fault = record(parts, moment);
    machine.locked([&fault](World& world) { Faults::befall(world, fault); });
}

void befallProperty(Machine& machine, const Moment& moment, Property property, PropertyForm form,
                    double value) {
    FaultRecord fault = record({.kind = FaultKind::kSet, .number = value}, moment);
    fault.property = static_cast<std::uint32_t>(property);
    fault.form = static_cast<std::uint32_t>(form);
    machine.locked([&fault](World& world) { Faults::befall(world, fault); });
    std::error_code none;
    if (property == Property::kTurboApplications && std::filesystem::exists(machine.root(), none)) {
        MachineDirectory::placeTurboExtension(machine.root(), static_cast<unsigned>(value));
    }
}

}  // namespace

void Happenings::set(Property property, double value) {
    befallProperty(*machine_, moment_, property, PropertyForm::kNumber, value);
}

void Happenings::setAbsent(Property property) {
    befallProperty(*machine_, moment_, property, PropertyForm::kAbsent, 0);
}

void Happenings::setNotANumber(Property property) {
    befallProperty(*machine_, moment_, property, PropertyForm::kNotANumber, 0);
}

void Happenings::sleep(double seconds) {
    befall(*machine_, moment_, {.kind = FaultKind::kSleep, .seconds = seconds});
}

void Happenings::refuseWrites(std::string_view key, int code, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kRefuseWrite, .key = key, .code = code, .times = times});
}

void Happenings::refuseReads(std::string_view key, int code, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kRefuseRead, .key = key, .code = code, .times = times});
}

void Happenings::refuseCalls(int code, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kRefuseCall, .code = code, .times = times});
}

void Happenings::ignoreWrites(std::string_view key, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kIgnoreWrite, .key = key, .times = times});
}

void Happenings::delayWrites(std::string_view key, double seconds, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kDelayWrite, .key = key, .times = times, .seconds = seconds});
}

void Happenings::readGarbage(std::string_view key, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kGarbage, .key = key, .times = times});
}

void Happenings::readZeros(std::string_view key, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kZero, .key = key, .times = times});
}

void Happenings::freezeReads(std::string_view key, int times) {
    if (key.empty()) {
        throw std::runtime_error("freezeReads needs a key");
    }
    befall(*machine_, moment_, {.kind = FaultKind::kFreeze, .key = key, .times = times});
}

void Happenings::wrongKeySize(std::string_view key, std::uint32_t size, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kKeySize,
            .key = key,
            .times = times,
            .number = static_cast<double>(size)});
}

void Happenings::wrongOutputSize(std::size_t size, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kOutputSize, .times = times, .number = static_cast<double>(size)});
}

void Happenings::refuseOpening(int code, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kRefuseOpen, .code = code, .times = times});
}

void Happenings::vanishFan(int fan) {
    befall(*machine_, moment_, {.kind = FaultKind::kVanishFan, .fan = fan});
}

void Happenings::otherWrites(std::string_view key, double number) {
    befall(*machine_, moment_, {.kind = FaultKind::kOtherWrites, .key = key, .number = number});
}

void Happenings::otherTakesFan(int fan) {
    befall(*machine_, moment_, {.kind = FaultKind::kTakeFan, .fan = fan});
}

void Happenings::otherReleasesFan(int fan) {
    befall(*machine_, moment_, {.kind = FaultKind::kReleaseFan, .fan = fan});
}

void Happenings::driftTarget(int fan, double byRpm) {
    befall(*machine_, moment_, {.kind = FaultKind::kDriftTarget, .fan = fan, .number = byRpm});
}

void Happenings::otherHoldsUnlock(bool held) {
    befall(*machine_, moment_, {.kind = FaultKind::kHoldUnlock, .number = held ? 1.0 : 0.0});
}

void Happenings::otherKeepsTarget(int fan, double rpm, double periodSeconds) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kKeepTarget, .fan = fan, .number = rpm, .seconds = periodSeconds});
}

void Happenings::toolFails(std::string_view tool, int status, std::string_view text, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kToolFails,
            .code = status,
            .times = times,
            .tool = tool,
            .text = text});
}

void Happenings::toolHangs(std::string_view tool, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kToolHangs, .times = times, .tool = tool});
}

void Happenings::toolIgnoresSigterm(std::string_view tool, int times) {
    befall(*machine_, moment_,
           {.kind = FaultKind::kToolIgnoresSigterm, .times = times, .tool = tool});
}

void Happenings::toolPrintsGarbage(std::string_view tool, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kToolGarbage, .times = times, .tool = tool});
}

void Happenings::toolPrintsMegabyte(std::string_view tool, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kToolMegabyte, .times = times, .tool = tool});
}

void Happenings::toolIgnoresChange(std::string_view tool, int times) {
    befall(*machine_, moment_, {.kind = FaultKind::kToolNoEffect, .times = times, .tool = tool});
}

void Happenings::clearFaults() {
    befall(*machine_, moment_, {.kind = FaultKind::kClearFaults});
}

}  // namespace simulator
