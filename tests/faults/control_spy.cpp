#include "tests/faults/control_spy.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"

namespace ferovane::testing {
namespace {

using simulator::packed;
using simulator::unpacked;

constexpr std::uint8_t kRead = 5;
constexpr std::uint8_t kWrite = simulator::kWriteCommand;

bool endsIn(std::uint32_t key, const char* suffix) {
    return (key & 0xFFFF) == (packed(std::string("  ") + suffix) & 0xFFFF) && key >> 24 == 'F';
}
bool isMode(std::uint32_t key) {
    return endsIn(key, "Md") || endsIn(key, "md");
}
bool isTarget(std::uint32_t key) {
    return endsIn(key, "Tg");
}
bool isMask(std::uint32_t key) {
    return key == packed("FS! ");
}
int fanOf(std::uint32_t key) {
    return static_cast<int>(key >> 16 & 0xFF) - '0';
}
bool isAutomatic(std::uint8_t mode) {
    return mode == 0 || mode == 3;
}
using Bytes = std::array<std::uint8_t, 32>;

// Whether these bytes, so many of them, are what is written.
bool holds(const simulator::ControllerBlock& write, const Bytes& bytes, std::uint32_t size) {
    return size > 0 && size == write.dataSize && std::memcmp(bytes.data(), write.data, size) == 0;
}
std::uint32_t maskIn(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) << 8 | bytes[1];
}

}  // namespace

bool ControlSpy::isOthers(int fan) const {
    return mac_.machine().locked([fan](simulator::World& world) {
        const auto& record = world.state().fans[fan];
        return record.mode == 1 && record.vanished == 0 && record.holder == simulator::kHeldByOther;
    });
}

void ControlSpy::otherTook(int fan) {
    others_.insert(fan);
    listed_.erase(fan);
    noticed_.erase(fan);
}

void ControlSpy::before(const simulator::ControllerBlock& in) {
    if (in.command == kWrite) {
        for (int fan = 0; fan < mac_.fanCount(); ++fan) {
            besideOther_ = besideOther_ || isOthers(fan);
        }
        checkWrite(in);
        noteWish(in);
        Written& written = written_[in.key];
        // What holds a value already, and said so, needs no second read-back.
        const bool again =
            holds(in, written.bytes, written.confirmed ? written.size : 0) ||
            holds(in, lastSaid_[in.key], isMode(in.key) || isMask(in.key) ? in.dataSize : 0);
        std::memcpy(written.bytes.data(), in.data, written.bytes.size());
        written.size = in.dataSize;
        written.confirmed = again;
        written.everTaken = written.everTaken || (isMode(in.key) && !isAutomatic(in.data[0])) ||
                            (isMask(in.key) && maskIn(in.data) != 0);
    }
}

void ControlSpy::checkWrite(const simulator::ControllerBlock& in) {
    if (isMask(in.key)) {
        // One bit away from what was read twice before the write; the third reading is the write's.
        const bool oneBit = std::any_of(masksRead_.begin(), masksRead_.end(), [&](auto mask) {
            return std::popcount(mask ^ maskIn(in.data)) <= 1;
        });
        if (!oneBit && !liedTo_) {
            trespasses_.push_back("more than one fan switched by a mask");
        }
        for (int fan = 0; fan < mac_.fanCount(); ++fan) {
            if ((maskIn(in.data) >> fan & 1) != 0 && noticed_.count(fan) == 0) {
                others_.erase(fan);
                listed_.erase(fan);
            }
        }
        return;
    }
    const int fan = fanOf(in.key);
    const bool takes = isMode(in.key) ? !isAutomatic(in.data[0]) : isTarget(in.key);
    if (takes && noticed_.count(fan) > 0 && isOthers(fan) && !liedTo_) {
        trespasses_.push_back("write to " + unpacked(in.key) + ", known to be somebody else's");
    } else if (takes) {
        others_.erase(fan);  // taken over unknowingly: from here on nobody could tell
        listed_.erase(fan);
        noticed_.erase(fan);  // what was read of it before is no knowledge of what follows
    }
}

void ControlSpy::after(std::uint32_t connection, const simulator::ControllerBlock& in,
                       const simulator::ControllerBlock& out, bool answered) {
    if (in.command != kRead || !answered || out.result != 0) {
        return;
    }
    const bool isCount = in.key == packed("FNum");
    if (isCount || isMode(in.key) || isMask(in.key)) {
        const auto truth = mac_.bytes(unpacked(in.key));
        liedTo_ = liedTo_ || !std::equal(truth.begin(), truth.end(), out.data);
    }
    if (connection == control_ && isCount) {
        listed_ = others_;
        seen_.clear();
    }
    if (isMask(in.key) && connection == control_) {
        masksRead_ = {masksRead_[1], masksRead_[2], maskIn(out.data)};
    }
    if (isMode(in.key) || isMask(in.key)) {
        noteMode(in, out);
        // Only the reading of all fans looks for other programs; a later read of the same key is
        // the beginning of a switch.
        if (connection == control_ && seen_.insert(in.key).second) {
            for (const int fan : listed_) {
                if (isMask(in.key) || fanOf(in.key) == fan) {
                    noticed_.insert(fan);
                }
            }
        }
    }
    const auto found = written_.find(in.key);
    if (found == written_.end()) {
        return;
    }
    Written& written = found->second;
    const bool same = std::memcmp(written.bytes.data(), out.data, written.size) == 0;
    const bool bothAutomatic =
        isMode(in.key) && isAutomatic(written.bytes[0]) && isAutomatic(out.data[0]);
    written.confirmed = written.confirmed || same || bothAutomatic;
    if (same && isMode(in.key) && !isAutomatic(out.data[0])) {
        confirmedManual_.insert(fanOf(in.key));
    }
    for (int fan = 0; same && isMask(in.key) && fan < mac_.fanCount(); ++fan) {
        if ((maskIn(out.data) >> fan & 1) != 0) {
            confirmedManual_.insert(fan);
        }
    }
}

void ControlSpy::noteMode(const simulator::ControllerBlock& in,
                          const simulator::ControllerBlock& out) {
    std::memcpy(lastSaid_[in.key].data(), out.data, lastSaid_[in.key].size());
    const auto says = [this](int fan, bool automatic) {
        if (automatic && toBeManual_.count(fan) == 0) {
            saidAutomatic_.insert(fan);
        }
    };
    if (isMode(in.key)) {
        saidAutomatic_.erase(fanOf(in.key));
        says(fanOf(in.key), isAutomatic(out.data[0]));
        return;
    }
    // Fans are confirmed one after the other: a later reading, for another fan, takes nothing back.
    for (int fan = 0; fan < mac_.fanCount(); ++fan) {
        says(fan, (maskIn(out.data) >> fan & 1) == 0);
    }
}

void ControlSpy::noteWish(const simulator::ControllerBlock& write) {
    const auto wishes = [this](int fan, bool automatic) {
        if (automatic) {
            toBeManual_.erase(fan);
        } else {
            toBeManual_.insert(fan);
            saidAutomatic_.erase(fan);
        }
    };
    if (isMode(write.key)) {
        saidAutomatic_.erase(fanOf(write.key));
        wishes(fanOf(write.key), isAutomatic(write.data[0]));
    }
    if (isMask(write.key)) {
        // The bit that differs from what was read is wished for, the others are copies; where none
        // differs, a fan that is automatic already was to be.
        const std::uint32_t mask = maskIn(write.data);
        const std::uint32_t changed = mask ^ masksRead_.back();
        for (int fan = 0; fan < mac_.fanCount(); ++fan) {
            if (((changed != 0 ? changed : ~mask) >> fan & 1) != 0) {
                wishes(fan, (mask >> fan & 1) == 0);
            }
        }
    }
}

std::vector<int> ControlSpy::fansLeftManual() const {
    std::vector<int> fans;
    mac_.machine().locked([&fans](simulator::World& world) {
        const simulator::WorldState& state = world.state();
        for (std::uint32_t i = 0; i < state.fanCount; ++i) {
            const simulator::FanRecord& fan = state.fans[i];
            if (fan.mode == 1 && fan.holder != simulator::kHeldByOther) {
                fans.push_back(static_cast<int>(i));
            }
        }
    });
    return fans;
}

bool ControlSpy::modesConfirmed() const {
    return std::all_of(written_.begin(), written_.end(), [](const auto& entry) {
        return entry.second.confirmed || !entry.second.everTaken;
    });
}

std::string ControlSpy::unconfirmed() const {
    std::string keys;
    for (const auto& [key, written] : written_) {
        if (!written.confirmed) {
            keys += (keys.empty() ? "" : " ") + unpacked(key);
        }
    }
    return keys;
}

}  // namespace ferovane::testing
