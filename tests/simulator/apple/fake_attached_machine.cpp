#include "tests/simulator/apple/fake_attached_machine.h"

namespace {

simulator::AttachedMachine* attachedNow = nullptr;

}  // namespace

FakeAttachedMachine::FakeAttachedMachine() {
    attachedNow = this;
}
FakeAttachedMachine::~FakeAttachedMachine() {
    attachedNow = nullptr;
}

// This program is linked without the simulated machine's own.
simulator::AttachedMachine* simulator::attachedMachine() {
    return attachedNow;
}
