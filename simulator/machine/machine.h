// One simulated Mac: state, journal and the time that passes for it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "simulator/apple/attached_machine.h"
#include "simulator/machine/controller.h"
#include "simulator/machine/service_ports.h"
#include "simulator/machine/world.h"

namespace simulator {

class Machine final : public AttachedMachine {
public:
    // root: where tools and bundles are looked up; "" for a machine without them.
    Machine(std::unique_ptr<StateStore> store, std::unique_ptr<Journal> journal, std::string root);

    // Runs an operation on the world with the lock held and time caught up with.
    template <typename Operation>
    auto locked(Operation&& operation) {
        const Hold hold(*this);
        return std::forward<Operation>(operation)(world_);
    }

    // The controller's structure call, as the user client makes it.
    ControllerAnswer call(const ControllerBlock& in, ControllerBlock& out);

    void advance(double seconds);  // throws std::logic_error unless the clock is virtual

    ServicePorts& ports() { return ports_; }
    void setRoot(std::string root) { root_ = std::move(root); }

    std::string cpuBrand() override;
    bool appleSilicon() override;
    std::string systemVersion() override;
    std::optional<double> processorCount() override;
    std::optional<double> thermalState() override;
    std::optional<double> lowPowerMode() override;
    std::optional<double> memoryPressureLevel() override;
    double continuousSeconds(double hostSeconds) override;
    double uptimeSeconds(double hostSeconds) override;
    std::string root() override { return root_; }
    void log(std::string_view line) override;

private:
    class Hold {
    public:
        explicit Hold(Machine& machine);
        ~Hold();
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        Machine& machine_;
    };

    void catchUp();
    std::optional<double> published(Property property);

    std::unique_ptr<StateStore> store_;
    std::unique_ptr<Journal> journal_;
    std::string root_;
    World world_;
    ServicePorts ports_;
};

// Lets machine time pass: heat and fans, and what is due on the way, in order.
void passTime(World& world, double seconds);
// Heat and fans alone, without the clock.
void passHeat(World& world, double seconds);
// The heat in which the present load ends; the battery stays as full as it is.
void settleHeat(World& world);

// The machine this process is attached to, or null: as attachedMachine(), with all of its doors.
Machine* attachedMac();

// What FEROVANE_SIMULATED_MAC names; a process attaches to it at the first question.
inline constexpr const char* kMachineVariable = "FEROVANE_SIMULATED_MAC";

}  // namespace simulator
