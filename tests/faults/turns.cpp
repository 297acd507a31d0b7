#include "tests/faults/turns.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <semaphore>
#include <utility>

#include "tests/faults/failing_memory.h"

namespace ferovane::testing {
namespace {

// A wait that is over at once still costs something: a loop of such waits must come to an end.
constexpr double kShortestWait = 1e-6;
constexpr unsigned kCallsPerYield = 4;

}  // namespace

struct Turns::Part {
    std::binary_semaphore turn{0};
    double wakeAt = kForever;
    std::uint64_t since = 0;  // order of the waits that end at the same time
    const void* waitsFor = nullptr;
    bool notified = false;
    bool ended = false;
    std::thread::native_handle_type handle{};
};

namespace {

thread_local Turns* turnsOfThread = nullptr;
thread_local void* partOfThread = nullptr;

}  // namespace

// What a thread of the code under test runs: waits for its turn, works, and passes the turn on.
class Turns::PartState : public std::thread::_State {
public:
    PartState(Turns& turns, std::shared_ptr<Part> part, std::unique_ptr<_State> work)
        : turns_(turns), part_(std::move(part)), work_(std::move(work)) {}

    void _M_run() override {
        turnsOfThread = &turns_;
        partOfThread = part_.get();
        part_->turn.acquire();
        {
            const InProduct inProduct;
            work_->_M_run();
        }
        work_.reset();
        turns_.end(*part_);
    }

private:
    Turns& turns_;
    std::shared_ptr<Part> part_;
    std::unique_ptr<_State> work_;
};

Turns::Turns(std::function<double()> now, std::function<void(double)> advance, std::uint64_t seed)
    : now_(std::move(now)), advance_(std::move(advance)), random_(seed), shuffled_(seed != 0) {
    parts_.push_back(std::make_shared<Part>());
    turnsOfThread = this;
    partOfThread = parts_.front().get();
}

Turns::~Turns() {
    awaitOthers();
    turnsOfThread = nullptr;
    partOfThread = nullptr;
}

void Turns::awaitOthers() {
    while (std::any_of(parts_.begin() + 1, parts_.end(), [](const auto& p) { return !p->ended; })) {
        sleep(1);
    }
}

Turns* Turns::ofThisThread() {
    return turnsOfThread;
}

void Turns::giveUp(const char* why) {
    std::fprintf(stderr, "seed %u: %s\n", seedOfCase, why);
    std::abort();
}

void Turns::sometimesYield() {
    if (shuffled_ && parts_.size() > 1 && random_() % kCallsPerYield == 0) {
        waitFor(nullptr, now());
    }
}

bool Turns::waitFor(const void* what, double deadline) {
    const OutsideProduct outside;
    Part& self = *static_cast<Part*>(partOfThread);
    self.waitsFor = what;
    self.notified = false;
    self.wakeAt = what == nullptr ? deadline : std::max(deadline, now() + kShortestWait);
    self.since = ++order_;
    passOn(self, true);
    self.waitsFor = nullptr;
    return self.notified;
}

void Turns::notify(const void* what) {
    for (const auto& part : parts_) {
        if (part->waitsFor == what && !part->notified) {
            part->notified = true;
            part->wakeAt = now();
            part->since = ++order_;
        }
    }
}

// Whose turn it is: of those that need not wait any longer the first, or any; when there is none,
// the one whose wait ends first, at the end of it.
Turns::Part& Turns::next() {
    std::vector<Part*> ready;
    Part* first = nullptr;
    for (const auto& part : parts_) {
        if (part->ended) {
            continue;
        }
        if (part->wakeAt <= now()) {
            ready.push_back(part.get());
        }
        if (first == nullptr ||
            std::pair(part->wakeAt, part->since) < std::pair(first->wakeAt, first->since)) {
            first = part.get();
        }
    }
    if (shuffled_ && ready.size() > 1) {
        return *ready[random_() % ready.size()];
    }
    if (first == nullptr || first->wakeAt == kForever) {
        giveUp("every thread of the code under test waits for ever");
    }
    if (ready.empty()) {
        advance_(first->wakeAt - now());
    }
    return *first;
}

void Turns::passOn(Part& from, bool comesBack) {
    Part& to = next();
    to.wakeAt = kForever;
    if (&to == &from) {
        return;
    }
    to.turn.release();
    if (comesBack) {
        from.turn.acquire();
    }
}

void Turns::end(Part& part) {
    const OutsideProduct outside;
    part.ended = true;
    notify(&part);
    passOn(part, false);
}

void Turns::start(std::thread& thread, std::unique_ptr<std::thread::_State> state,
                  void (*depend)()) {
    onStart();
    auto part = std::make_shared<Part>();
    part->wakeAt = now();
    part->since = ++order_;
    reallyStart(&thread, std::make_unique<PartState>(*this, part, std::move(state)), depend);
    part->handle = thread.native_handle();
    parts_.push_back(std::move(part));
}

void Turns::join(std::thread& thread) {
    const auto found = std::find_if(parts_.begin(), parts_.end(), [&](const auto& part) {
        return part->handle == thread.native_handle();
    });
    if (found != parts_.end()) {
        const std::shared_ptr<Part> part = *found;
        while (!part->ended) {
            waitFor(part.get(), kForever);
        }
        part->handle = {};
        parts_.erase(std::find(parts_.begin(), parts_.end(), part));
    }
    reallyJoin(&thread);
}

}  // namespace ferovane::testing
