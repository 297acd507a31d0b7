// What the code under test knows of the fans it controls, seen at the controller's own call.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "simulator/machine/controller.h"
#include "simulator/machine/simulated_mac.h"

namespace ferovane::testing {

class ControlSpy {
public:
    explicit ControlSpy(simulator::SimulatedMac& mac) : mac_(mac) {}

    void opened(std::uint32_t connection) { control_ = control_ != 0 ? control_ : connection; }

    // Around every call; connection: the port it is made on.
    void before(const simulator::ControllerBlock& in);
    void after(std::uint32_t connection, const simulator::ControllerBlock& in,
               const simulator::ControllerBlock& out, bool answered);

    // Another program has taken this fan just now.
    void otherTook(int fan);

    // Fans in manual mode that are nobody else's.
    std::vector<int> fansLeftManual() const;
    // Mode and target keys whose last write was not read back since: empty after a success.
    std::string unconfirmed() const;
    bool modesConfirmed() const;  // the same of the mask and the modes of fans that were taken

    // Whether manual mode was ever read back after it was written.
    bool wasConfirmedManual(int fan) const { return confirmedManual_.count(fan) > 0; }

    // Whether the fan's mode, since it was last written, was last read as automatic.
    bool saidAutomatic(int fan) const { return saidAutomatic_.count(fan) > 0; }

    bool wroteBesideOther() const { return besideOther_; }  // while a fan was somebody else's
    bool liedTo() const {
        return liedTo_;
    }  // a read of the fan count, a mode or the mask was answered with something untrue
    const std::vector<std::string>& trespasses() const { return trespasses_; }

private:
    struct Written {
        std::array<std::uint8_t, 32> bytes{};
        std::uint32_t size = 0;
        bool confirmed = false;
        bool everTaken = false;  // manual mode was written
    };

    void checkWrite(const simulator::ControllerBlock& in);
    void noteWish(const simulator::ControllerBlock& write);
    void noteMode(const simulator::ControllerBlock& in, const simulator::ControllerBlock& out);
    bool isOthers(int fan) const;

    simulator::SimulatedMac& mac_;
    std::uint32_t control_ = 0;  // the connection that fans are switched on: the first
    std::array<std::uint32_t, 3> masksRead_{};  // as the code under test last read it
    bool besideOther_ = false;
    bool liedTo_ = false;
    std::map<std::uint32_t, Written> written_;
    std::map<std::uint32_t, std::array<std::uint8_t, 32>> lastSaid_;  // by the modes and the mask
    std::set<int> confirmedManual_;
    std::set<int> toBeManual_;  // by the last write of the mode
    std::set<int> saidAutomatic_;
    std::set<int> others_;          // fans taken by another program
    std::set<int> listed_;          // of these, those since when the fan count was read again
    std::set<std::uint32_t> seen_;  // modes read since then
    std::set<int> noticed_;         // and since when the mode was read, too
    std::vector<std::string> trespasses_;
};

}  // namespace ferovane::testing
