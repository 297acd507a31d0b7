#include "simulator/machine/simulated_mac.h"

#include <algorithm>
#include <filesystem>

#include "simulator/machine/faults.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/machine_directory.h"

namespace simulator {
namespace {

// "17 41.250 4711 write F0Md=1 -> 00" becomes "F0Md=1"; "" for any line that is no write of an
// attached process.
std::string writeIn(const std::string& line) {
    const std::size_t time = line.find(' ');
    const std::size_t who = time == std::string::npos ? time : line.find(' ', time + 1);
    if (who == std::string::npos || who + 1 >= line.size() || !isDigit(line[who + 1])) {
        return "";
    }
    const std::size_t what = line.find(' ', who + 1);
    constexpr std::string_view kWrite = " write ";
    const std::size_t arrow = line.rfind(" -> ");
    if (what == std::string::npos || line.compare(what, kWrite.size(), kWrite) != 0 ||
        arrow == std::string::npos) {
        return "";
    }
    const std::size_t start = what + kWrite.size();
    std::string text = line.substr(start, arrow - start);
    const std::string result = line.substr(arrow + 4, line.find(' ', arrow + 4) - (arrow + 4));
    return result == "00" ? text : text + "!" + result;
}

}  // namespace

void Happenings::befall(const Happening& happening) {
    const FaultRecord fault = Faults::record(happening, moment_);
    machine_->locked([&fault](World& world) { Faults::befall(world, fault); });
    std::error_code none;
    if (happening.kind == FaultKind::kSet && happening.property == Property::kTurboApplications &&
        std::filesystem::exists(machine_->root(), none)) {
        MachineDirectory::placeTurboExtension(machine_->root(),
                                              static_cast<unsigned>(happening.number));
    }
}

SimulatedMac::SimulatedMac(std::unique_ptr<Machine> machine)
    : Happenings(*machine, Moment{}), owned_(std::move(machine)) {}

SimulatedMac::SimulatedMac(SimulatedMac&& other) noexcept = default;
SimulatedMac::~SimulatedMac() = default;

Attachment SimulatedMac::attach() {
    return Attachment(*owned_);
}

double SimulatedMac::now() {
    return owned_->locked([](World& world) { return world.state().machineSeconds; });
}

void SimulatedMac::advance(double seconds) {
    owned_->advance(seconds);
}

void SimulatedMac::followHostClock() {
    owned_->locked([](World& world) { world.state().clockMode = ClockMode::kHost; });
}

HappeningsToCome SimulatedMac::at(double seconds) {
    return {*owned_, {Moment::Kind::kTime, seconds, 0}};
}

HappeningsToCome SimulatedMac::after(double seconds) {
    return at(now() + seconds);
}

HappeningsToCome SimulatedMac::atCall(std::uint64_t k) {
    const auto made = owned_->locked([](World& world) { return world.state().totalCalls; });
    return {*owned_, {Moment::Kind::kCall, 0, made + k}};
}

HappeningsToCome SimulatedMac::atWrite(std::uint64_t k) {
    const auto made = owned_->locked([](World& world) { return world.state().totalWrites; });
    return {*owned_, {Moment::Kind::kWrite, 0, made + k}};
}

void SimulatedMac::settle() {
    owned_->locked([](World& world) { settleHeat(world); });
}

std::vector<std::string> SimulatedMac::journal() {
    return owned_->locked([](World& world) { return world.journal().lines(); });
}

std::string SimulatedMac::writes() {
    std::string all;
    for (const std::string& line : journal()) {
        const std::string write = writeIn(line);
        all += write.empty() ? "" : (all.empty() ? "" : " ") + write;
    }
    return all;
}

void SimulatedMac::clearJournal() {
    owned_->locked([](World& world) { world.journal().clear(); });
}

CallCounts SimulatedMac::calls() {
    return owned_->locked([](World& world) {
        const auto& calls = world.state().calls;
        CallCounts counts;
        counts.reads = calls[5];
        counts.writes = calls[6];
        counts.names = calls[8];
        counts.keyInfos = calls[9];
        for (const std::uint64_t count : calls) {
            counts.other += count;
        }
        counts.other -= counts.reads + counts.writes + counts.names + counts.keyInfos;
        return counts;
    });
}

void SimulatedMac::clearCalls() {
    owned_->locked([](World& world) {
        std::fill(std::begin(world.state().calls), std::end(world.state().calls), 0);
    });
}

PortCounts SimulatedMac::ports() {
    return owned_->ports().counts();
}

}  // namespace simulator
