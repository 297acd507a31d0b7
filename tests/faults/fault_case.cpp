#include "tests/faults/fault_case.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "tests/faults/failing_memory.h"
#include "tests/faults/judge.h"
#include "tests/faults/product_scope.h"

namespace ferovane::testing {
namespace {

constexpr char kSeparator = '|';
constexpr std::string_view kMemoryOnce = "allocation fails";
constexpr std::string_view kMemoryForGood = "memory gone for good";
constexpr std::string_view kOrder = "order";
constexpr double kSettlingSeconds = 10;  // more than a few writes in a row need

template <class Named>
const Named& find(const std::vector<Named>& all, std::string_view name) {
    const auto found =
        std::find_if(all.begin(), all.end(), [&](const Named& one) { return one.name == name; });
    if (found == all.end()) {
        throw std::runtime_error("there is no \"" + std::string(name) + "\"");
    }
    return *found;
}

void addPart(FaultCase& faultCase, const std::string& part) {
    const std::size_t sign = part.rfind('@');
    if (sign == std::string::npos) {
        throw std::runtime_error("no position in \"" + part + "\"");
    }
    const std::string what = part.substr(0, sign);
    const auto at = std::stoull(part.substr(sign + 1));
    if (what == kMemoryOnce || what == kMemoryForGood) {
        faultCase.memory = MemoryLoss{static_cast<long>(at), what == kMemoryForGood};
    } else if (what == kOrder) {
        faultCase.orderSeed = at;
    } else {
        faultCase.strikes.push_back({&find(faultKinds(), what), at});
    }
}

const FaultCase* running = nullptr;

// An exception that could leave a thread, or a function that lets none out, ends the process: to be
// told with the case's name.
[[noreturn]] void tellWhichCaseTerminated() {
    FailingMemory::relent();
    productDepth = 0;
    std::fprintf(stderr, "std::terminate in %s\n",
                 running != nullptr ? running->name().c_str() : "no case");
    std::abort();
}

// What is left manual is the guardian's, which runs the helper again with nothing wrong any more.
void checkSecondChance(FaultWorld& world, Outcome& outcome) {
    world.run({"auto"});
    if (!world.spy.fansLeftManual().empty()) {
        outcome.complaints.push_back("a later auto could not help either");
    }
}

}  // namespace

std::string FaultCase::name() const {
    std::ostringstream text;
    text << machine->name << kSeparator << fans << kSeparator << flow->name;
    for (const Strike& strike : strikes) {
        text << kSeparator << strike.kind->name << '@' << strike.at;
    }
    if (memory) {
        text << kSeparator << (memory->forGood ? kMemoryForGood : kMemoryOnce) << '@'
             << memory->after;
    }
    if (orderSeed != 0) {
        text << kSeparator << kOrder << '@' << orderSeed;
    }
    return text.str();
}

FaultCase FaultCase::named(const std::string& name) {
    std::istringstream text(name);
    std::string machine, fans, flow, part;
    std::getline(text, machine, kSeparator);
    std::getline(text, fans, kSeparator);
    std::getline(text, flow, kSeparator);
    FaultCase found{&find(machineKinds(), machine), std::stoi(fans), &find(flows(), flow)};
    while (std::getline(text, part, kSeparator)) {
        addPart(found, part);
    }
    return found;
}

Outcome run(const FaultCase& faultCase, bool withJournal) {
    running = &faultCase;
    std::set_terminate(tellWhichCaseTerminated);
    Outcome outcome;
    FaultWorld world(faultCase.machine->make(faultCase.fans), faultCase.machine->appleSilicon,
                     faultCase.orderSeed);
    const Flow& flow = *faultCase.flow;
    flow.prepare(world);
    world.monitor = flow.monitor;
    if (flow.handsOff) {
        world.spy.otherTook(world.mac.fanCount() - 1);
    }
    Judge judge(world, flow);
    for (const Strike& strike : faultCase.strikes) {
        judge.settlingSeconds =
            std::max(judge.settlingSeconds, strike.kind->settlesLate ? kSettlingSeconds : 0.0);
    }
    world.beforeCall = [&](std::uint64_t number, const Call& call) {
        for (const Strike& strike : faultCase.strikes) {
            if (strike.at == number && strike.kind->canStrike(call, flow)) {
                ++outcome.fired;
                strike.kind->strike(world, call);
            }
        }
    };
    if (faultCase.memory) {
        FailingMemory::failAfter(faultCase.memory->after, faultCase.memory->forGood);
    }
    outcome.status = world.run(flow.words);
    outcome.guarded = world.guardianRecord.ends_with("held ");
    outcome.allocations = FailingMemory::allocations();
    outcome.memoryFailed = faultCase.memory && FailingMemory::failures() > 0;
    outcome.complaints = std::move(judge.complaints);
    outcome.leftManual = judge.leftManual;
    outcome.liedTo = judge.liedTo;
    outcome.calls = std::move(world.calls);
    outcome.told = world.output + world.errors + world.undelivered;
    if (withJournal) {
        outcome.journal = world.mac.journal();
    }
    if (outcome.leftManual || outcome.liedTo) {
        checkSecondChance(world, outcome);
    }
    return outcome;
}

}  // namespace ferovane::testing
