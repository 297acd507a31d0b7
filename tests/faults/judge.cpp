#include "tests/faults/judge.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iterator>

#include "core/model/json_codec.h"
#include "tests/faults/failing_memory.h"

namespace ferovane::testing {
namespace {

using simulator::Property;

constexpr const char* kConfirmed = "控制已确认生效";
constexpr const char* kSystemManaged = "风扇由系统管理";
constexpr const char* kNoFans = "没有可读取的风扇";
constexpr const char* kNoMemory = "内存不足，操作未完成";
constexpr const char* kUnreturned = "恢复自动风扇失败";
constexpr const char* kSomebodyElses = "风扇未处于系统自动";
constexpr const char* kTurboNotPutBack = "睿频回退失败";

constexpr double kRoundedRpm = 3;        // a target is kept in steps below this
constexpr double kHandBackSeconds = 14;  // a round, a switch that fails and a second chance
constexpr double kSecondsPerFan = 3;     // of these
constexpr double kEndsSeconds = 45;      // after a cause to stop, with the longest patience
constexpr double kNoticingSeconds = 12;  // a round, and the hand-back
constexpr double kRivalPeriodSeconds = 25;
constexpr double kPatienceSeconds = 45;  // for which a session tries to hand back
constexpr double kRoundSeconds = 3;
constexpr double kLeaseSlack = 5;         // seconds, of taking and handing back
constexpr double kTakingSeconds = 0.5;    // per fan, when nothing is wrong
constexpr double kSettlingSeconds = 12;   // more than delayed writes in a row need
constexpr double kTakeWindow = 0.06;      // between the last look for a cause to stop and a take
constexpr std::size_t kCallsPerFan = 10;  // of the last look at all fans before one is taken
constexpr std::size_t kCallsOfTaking = 14;
constexpr std::size_t kCallsOfReadBack = 40;  // before the target follows

int openDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                          std::filesystem::directory_iterator()));
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Whether a text names this fan among those that could not be given back.
bool names(const std::string& text, int fan) {
    const std::string number = std::to_string(fan + 1);
    const std::string before = "（风扇 ";
    for (std::size_t at = text.find(before); at != std::string::npos;
         at = text.find(before, at + 1)) {
        const std::size_t start = at + before.size();
        const std::string list = "、" + text.substr(start, text.find("）", start) - start) + "、";
        if (contains(list, "、" + number + "、")) {
            return true;
        }
    }
    return false;
}

}  // namespace

Judge::Judge(FaultWorld& world, const MachineKind& machine, const Flow& flow,
             const Condition* condition)
    : world_(world),
      machine_(machine),
      flow_(flow),
      condition_(condition),
      fanCount_(world.mac.fanCount()),
      start_(world.mac.now()),
      driver_(driverLoaded()),
      descriptors_(openDescriptors()) {
    for (int fan = 0; fan < fanCount_; ++fan) {
        modesBefore_.push_back(world.fan(fan).mode);
        if (world.fan(fan).others) {
            othersSince_[fan] = 0;
        }
    }
    if (world.mac.number("Ftst").value_or(0) != 0) {
        unlockSince_ = 0;
    }
    if (flow.cause != nullptr) {
        causeAt_ = start_ + flow.ending;
    }
    world.beforeFanWrite = [this](const auto& writes) { seeWrites(writes); };
    world.afterControllerCall = [this] { seeMachine(); };
    world.toGuardian = [this](bool held) { hearGuardian(held); };
    world.onOutput = [this](const std::string& line) { hearOutput(line); };
    world.onLog = [this](const std::string& line) { hearLog(line); };
    world.atEnd = [this] { checkEnd(); };
}

void Judge::complain(const std::string& text) {
    if (std::find(complaints.begin(), complaints.end(), text) == complaints.end()) {
        complaints.push_back(text);
    }
}

void Judge::complainIf(bool isWrong, const char* text) {
    if (isWrong) {
        complain(text);
    }
}

// Then what made the machine unfit is gone.
bool Judge::wasAskedToReturn() const {
    const auto& asked = world_.asked;
    return std::find(asked.begin(), asked.end(), Ask::automatic) != asked.end();
}

double Judge::driverLoaded() {
    return world_.mac.value(Property::kExtensionLoaded).value_or(0);
}

// ---- What befalls the helper -------------------------------------------------------------------

void Judge::strikes(const FaultKind& kind, const Call& call) {
    calm_ = calm_ && kind.harm == Harm::none;
    rival_ = rival_ || kind.harm == Harm::rival;
    const std::string key = call.keyText();
    const bool isLast = kind.name.starts_with("vanish-fan");
    switch (kind.harm) {
        case Harm::once:
        case Harm::lieOnce:
        case Harm::late:
            ++hits_;
            lieOnce_ = lieOnce_ || kind.harm == Harm::lieOnce;
            break;
        case Harm::lies:
        case Harm::lasting:
            ++hits_;
            lies_ = lies_ || kind.harm == Harm::lies;
            // A fan's target and speed are no matter of its switch.
            for (int fan = 0; fan < fanCount_; ++fan) {
                const bool isFans = key[0] == 'F' && std::isdigit(key[1]) != 0;
                const bool isItsSwitch = isFans && key[1] - '0' == fan && key.back() == 'd';
                const bool isEvery =
                    !isFans || !contains(std::string(kind.name), "key=@") ? !isLast : isItsSwitch;
                if (isEvery || (isLast && fan == fanCount_ - 1)) {
                    spoilt_.insert(fan);
                }
            }
            break;
        case Harm::outage:
            ++hits_;
            outageEnds_ = now() + kOutageSeconds;
            break;
        case Harm::cause:
            // A signal that nobody looks after yet would end the process before it has begun.
            if (kind.name.substr(0, 3) != "SIG" || !world_.handled.empty()) {
                causeAt_ = std::min(causeAt_, now());
            }
            break;
        default:
            break;
    }
    late_ = late_ || kind.name.starts_with("delay-write");
    allLate_ = allLate_ || kind.harm == Harm::late;
    toolsWrong_ = toolsWrong_ || call.kind == CallKind::tool || call.kind == CallKind::threadStart;
    deaf_ = deaf_ || call.kind == CallKind::probe;
    slept_ = slept_ || kind.name.starts_with("sleep") || call.kind == CallKind::clock;
    if (kind.harm != Harm::rival) {
        return;
    }
    const bool takesLast = kind.name.starts_with("take-fan");
    const bool locks = kind.name.starts_with("hold-unlock");
    const bool keeps = kind.name.starts_with("keep-target");
    const int fan = takesLast ? fanCount_ - 1 : 0;
    const bool holdsFirst = world_.fan(0).manual && !world_.fan(0).others;
    if (locks) {
        if (world_.mac.hasKey("Ftst")) {
            unlockSince_ = unlockSince_.value_or(world_.calls);
        }
    } else if (kind.name.starts_with("release-fan")) {
        othersSince_.erase(0);
    }
    if ((takesLast || keeps) && !world_.fan(fan).manual) {
        othersSince_.emplace(fan, world_.calls);
    } else if (holdsFirst && fan == 0 && !locks &&
               now() > heldSince_ + kTakingSeconds * fanCount_ + 1) {
        interferedAt_ = std::min(interferedAt_, now());
        onlyMoved_ = kind.name.starts_with("drift-target");
        keptAt_ = keeps ? std::min(keptAt_, now()) : keptAt_;
    }
}

// ---- What was written --------------------------------------------------------------------------

void Judge::seeWrites(const std::vector<FanWrite>& writes) {
    complainIf(!flow_.controlsFans && !writes.empty(), "fans written to, which nobody asked for");
    // A wrong reading of the mask would switch other fans; one that cannot be read is cleared.
    const bool takes = std::any_of(writes.begin(), writes.end(),
                                   [](const FanWrite& write) { return write.takes(); });
    complainIf(writes.size() > 1 && (takes || hits() == 0) && !lies_ && othersSince_.empty() &&
                   !rival_ && !slept_,
               "more than one fan switched by a mask");
    for (const FanWrite& write : writes) {
        const FanState fan = world_.fan(write.fan);
        if (!write.isMode) {
            if (std::abs(write.value - fan.target) >= kRoundedRpm) {
                before_[write.fan] = {fan.target, now()};
            }
            const bool inRange = write.value >= fan.minimum - kRoundedRpm &&
                                 write.value <= fan.maximum + kRoundedRpm;
            complainIf(!inRange && !lies_ && !lieOnce_, "a target out of the rated range");
            complainIf(
                flow_.cooling && write.value < fan.maximum - kRoundedRpm && !lies_ && !lieOnce_,
                "cooled below the rated maximum");
            if (onlyMoved_ && write.fan == 0) {
                interferedAt_ = Turns::kForever;
            }
        }
        if (write.takes() || !write.isMode) {
            seeTaking(write);
        } else if (fan.others) {
            returnedOfOthers_.insert(write.fan);
            complainIf(!isFit() && flow_.lease && isCalm(),
                       "a fan of another program returned, which had to be left alone");
        }
    }
}

void Judge::seeTaking(const FanWrite& write) {
    complainIf(!world_.guarded, "a fan taken, and the guardian does not know");
    complainIf(!logged_ && !mayBeDeceived(), "a fan taken, and the log does not know");
    complainIf(!isFit() && !wasAskedToReturn() && isCalm(), "a fan taken that had to be refused");
    const std::size_t window = kCallsPerFan * static_cast<std::size_t>(fanCount_) + kCallsOfTaking +
                               (write.isMode ? 0 : kCallsOfReadBack);
    const bool clear = hits() == 0;  // what the controller says can be known
    const auto others = othersSince_.find(write.fan);
    if (others != othersSince_.end() && world_.calls <= others->second + window) {
        othersSince_.erase(others);  // taken unknowingly: from here on nobody could tell
    } else
        complainIf(clear && others != othersSince_.end() && world_.fan(write.fan).others,
                   "a fan taken that another program held");
    complainIf(clear && write.isMode && unlockSince_ && machine_.appleSilicon && !held_ &&
                   world_.calls > *unlockSince_ + window,
               "a fan taken while another program had the unlock");
    complainIf(write.isMode && flow_.cooling && taken_.insert(write.fan).second &&
                   now() > causeAt_ + kTakeWindow && !slept_,
               "a fan taken after a cause to stop");
    if (!held_) {
        held_ = wasHeld_ = true;
        heldSince_ = now();
    }
}

// ---- How the machine stands --------------------------------------------------------------------

void Judge::seeMachine() {
    if (!held_ || !world_.fansTaken().empty()) {
        return;
    }
    held_ = false;
    heldUntil_ = now();
    heldSeconds += std::min(heldUntil_ - heldSince_, flow_.seconds);
    const double extra = kSecondsPerFan * fanCount_;
    const bool patient = late_ || !spoilt_.empty() || slept_ || outageEnds_ > 0 || hits() > 1;
    complainIf(heldUntil_ - heldSince_ > flow_.seconds + kLeaseSlack + extra && !patient,
               "fans held for longer than a lease may");
    complainIf(heldUntil_ > std::max(causeAt_, heldSince_) + kHandBackSeconds + extra && !patient,
               "fans held for long after a cause to stop");
    const double noticed = keptAt_ < Turns::kForever ? kRivalPeriodSeconds : 0;
    complainIf(heldUntil_ > interferedAt_ + noticed + kNoticingSeconds + extra && !patient,
               "a lease that went on while another program changed its fan");
    interferedAt_ = keptAt_ = Turns::kForever;
}

void Judge::hearGuardian(bool held) {
    complainIf(!held && !fansLeft().empty() && !mayBeDeceived() && !late_,
               "the guardian told that fans are returned that are not");
}

void Judge::hearLog(const std::string& line) {
    const bool begins = contains(line, "风扇控制开始");
    if (begins || contains(line, "风扇控制结束")) {
        complainIf(logged_ == begins, "the log's leases do not begin and end in turn");
        logged_ = begins;
    }
    complainIf(contains(line, "风扇已恢复") && !fansLeft().empty() && !mayBeDeceived() && !late_,
               "the log told that fans are returned that are not");
}

std::vector<int> Judge::fansLeft() {
    if (!flow_.returnsAll) {
        return world_.fansTaken();
    }
    std::vector<int> fans;
    for (int fan = 0; fan < fanCount_; ++fan) {
        const auto since = othersSince_.find(fan);
        const bool since0 = since == othersSince_.end() || since->second == 0;
        if (world_.fan(fan).manual && since0 &&
            world_.mac.hasKey("F" + std::to_string(fan) + "Tg")) {
            fans.push_back(fan);
        }
    }
    return fans;
}

// ---- What was told -----------------------------------------------------------------------------

void Judge::hearOutput(const std::string& line) {
    if (flow_.isSession()) {
        try {
            const auto reply = decodeJson<ControlReply>(line);
            if (answered_ >= world_.asked.size()) {
                return complain("a reply to nothing: " + line);
            }
            hearReply(reply, world_.asked[answered_++]);
        } catch (const std::exception& error) {
            complain("a reply that is none: " + line + ": " + error.what());
        }
    } else
        complainIf(flow_.controlsFans && !fansLeft().empty() && !mayBeDeceived(),
                   "success told with a fan in manual mode");
}

void Judge::hearReply(const ControlReply& reply, Ask ask) {
    checkForeseen(reply, ask);
    const double driver = driverLoaded();
    if (!reply.ok) {
        complainIf(driver != driver_ && ask == Ask::lease && !toolsWrong_ && !deaf_ &&
                       !contains(reply.message, kTurboNotPutBack),
                   "turbo left changed by what failed");
        driver_ = driver;
        leaseEnds_ = ask == Ask::refused ? leaseEnds_ : 0;
        return;
    }
    driver_ = driver;
    complainIf(reply.turbo && !deaf_ && *reply.turbo != static_cast<std::int64_t>(driver),
               "a wrong turbo state was told");
    complainIf(ask == Ask::lease && reply.message != kConfirmed,
               "a lease that began, and was not confirmed");
    if (reply.message == kConfirmed && ask != Ask::automatic) {
        checkControlTold(reply);
    } else
        complainIf(!reply.session && !contains(reply.message, kUnreturned) && !fansLeft().empty() &&
                       !mayBeDeceived() && !late_,
                   "fans told to be the system's, which they are not");
    if (ask == Ask::automatic && !mayBeDeceived() && !rival_) {
        for (int fan = 0; fan < fanCount_; ++fan) {
            complainIf(world_.fan(fan).manual, "every fan told to be returned, and one is not");
        }
    }
    leaseEnds_ = ask == Ask::automatic ? 0 : leaseEnds_;
    complainIf(ask == Ask::automatic && reply.session, "a lease told to run on, which was to end");
    complainIf(ask == Ask::shutdown && reply.message != kSystemManaged,
               "something else told than that the fans are the system's");
}

void Judge::checkControlTold(const ControlReply& reply) {
    if (!reply.session || !reply.fanStatus) {
        return complain("control told, and not of which lease");
    }
    leaseEnds_ = now() + reply.fanStatus->remainingSeconds;
    if (hits() > 0 || rival_ || slept_ || now() >= causeAt_ || !machine_.canBeHeld) {
        return;
    }
    complainIf(static_cast<int>(reply.fanStatus->targets.size()) != fanCount_,
               "control told of other fans than there are");
    for (const FanTarget& target : reply.fanStatus->targets) {
        const FanState fan = world_.fan(static_cast<int>(target.id));
        // A round may have begun that is not over yet.
        const auto [before, movedAt] = before_[static_cast<int>(target.id)];
        const bool isMoving =
            std::abs(before - target.rpm) < kRoundedRpm && now() < movedAt + kRoundSeconds;
        complainIf(!fan.manual || (std::abs(fan.target - target.rpm) >= kRoundedRpm && !isMoving),
                   "control told of a fan that is not so");
    }
}

// When nothing is wrong, what is asked for is done.
void Judge::checkForeseen(const ControlReply& reply, Ask ask) {
    const bool mustBeRefused = ask == Ask::refused || (ask == Ask::lease && !isFit() && isCalm());
    complainIf(reply.ok && mustBeRefused && (ask == Ask::refused || !wasAskedToReturn()),
               "done what had to be refused");
    const bool isFine = isCalm() && isFit() && machine_.canBeHeld && now() < causeAt_;
    if (!isFine || ask == Ask::refused) {
        return;
    }
    if (!reply.ok) {
        complain("refused with nothing wrong: " + reply.message);
    }
    if (ask == Ask::status && (leaseEnds_ > now() + 1) != (reply.message == kConfirmed) &&
        (leaseEnds_ > now() + 1 || now() > leaseEnds_ + kLeaseSlack)) {
        complain("a status that is not so: " + reply.message);
    }
}

// ---- What is left ------------------------------------------------------------------------------

// One call that goes wrong is made good by a second attempt; lasting trouble by nobody.
bool Judge::mayLeave(int fan) const {
    return spoilt_.count(fan) > 0 || allLate_ || hits() > 1 || outageEnds_ > 0 || mayBeDeceived();
}

void Judge::checkEnd() {
    const double end = now();
    seeMachine();
    world_.mac.advance(late_ ? kSettlingSeconds : 0);
    checkFansLeft();
    checkSettings();
    complainIf(world_.diedHolding, "a signal would have ended the helper while it held fans");
    complainIf(end > std::max(causeAt_, start_) + kEndsSeconds + kSecondsPerFan * fanCount_ &&
                   !late_ && hits() == 0 && !toolsWrong_ && !slept_,
               "it did not end for long after a cause to");
    complainIf(!returnedOfOthers_.empty() && hits() == 0 && !flow_.returnsAll &&
                   !flow_.isSession() && contains(world_.told(), kSomebodyElses),
               "a fan of another program returned");
}

void Judge::checkFansLeft() {
    const std::string text = world_.told();
    complainIf(logged_ && !contains(text, kUnreturned), "a lease ended, and the log does not know");
    const std::vector<int> left = fansLeft();
    isLeft = !left.empty();
    const bool cutOff = world_.muffled || !world_.undelivered.empty();
    if (left.empty()) {
        complainIf(world_.guarded && !contains(text, kUnreturned) && !cutOff,
                   "the guardian stays on guard, and nobody told why");
        complainIf(contains(text, kUnreturned) && hits() == 0 && !rival_ && !slept_ && isFit(),
                   "a hand-back told to have failed that did not");
        return;
    }
    for (const int fan : left) {
        if (!mayLeave(fan)) {
            complain("fan " + std::to_string(fan) + " left in manual mode without need");
        }
        if (!flow_.isSession() && !flow_.returnsAll && !cutOff && !mayBeDeceived() && !allLate_ &&
            !names(text, fan)) {
            complain("fan " + std::to_string(fan) + " left in manual mode, and not named");
        }
    }
    complainIf(!flow_.returnsAll && !world_.guarded && !mayBeDeceived() && !late_,
               "a fan left in manual mode, and the guardian let go");
    const bool isTold =
        cutOff || contains(text, kUnreturned) || mayBeDeceived() || allLate_ ||
        (flow_.returnsAll && (contains(text, kNoFans) || contains(text, kNoMemory)));
    complainIf(!isTold, "a fan left in manual mode, and nobody told");
    // A session goes on trying for as long as it may take a controller to come to itself.
    complainIf(flow_.isSession() && outageEnds_ > 0 && hits() == 1 &&
                   now() > outageEnds_ + kPatienceSeconds,
               "a fan left in manual mode long after the controller has come to itself");
}

void Judge::checkSettings() {
    const bool done = !flow_.isSession() && !world_.output.empty();
    const double driver = driverLoaded();
    if (!toolsWrong_ && !deaf_ && !flow_.isSession()) {
        const double wanted = done && flow_.turboDisabled >= 0 ? flow_.turboDisabled : driver_;
        const bool both = flow_.turboDisabled >= 0 && world_.undelivered.empty() == false;
        complainIf(driver != wanted && !both && !contains(world_.told(), kTurboNotPutBack),
                   "turbo is not as it was, nor as it was told");
    }
}

void Judge::ended(int status) {
    const bool told = !world_.output.empty() && world_.output.back() == '\n';
    if (!flow_.isSession()) {
        complainIf(status == 0 && !told, "status 0 without a word of success");
        for (int fan = 0; isCalm() && flow_.lease && status == 0 && fan < fanCount_; ++fan) {
            complainIf(world_.fan(fan).mode != modesBefore_[static_cast<std::size_t>(fan)],
                       "a fan in another mode than it was found in");
        }
        complainIf(status == 0 && isLeft && !mayBeDeceived(),
                   "success with a fan left in manual mode");
    }
    complainIf(
        status != 0 && world_.errors.empty() && world_.undelivered.empty() && !world_.muffled,
        "a failure without a word");
    const bool isControl = flow_.lease || flow_.returnsAll;
    const bool inTime = flow_.ending > 1 + kTakingSeconds * fanCount_;
    complainIf(isCalm() && !isFit() && flow_.lease && inTime && status == 0,
               "success in what had to be refused");
    const bool isFine = isCalm() && isFit() && (!flow_.lease || machine_.canBeHeld);
    if (isFine && status != 0 && inTime && (machine_.ownFans == 0 || !isControl)) {
        complain("failed with nothing wrong: " + world_.told());
    }
    if (isFine && flow_.lease && status == 0 && inTime) {
        const double least = std::min(flow_.seconds, flow_.ending - (heldSince_ - start_)) - 3;
        complainIf(!wasHeld_ || heldUntil_ - heldSince_ < least,
                   "fans held for less than they were to be");
    }
    if (!(world_.mac.ports() == simulator::PortCounts{})) {
        complain("ports that were not given back");
    }
    complainIf(openDescriptors() != descriptors_, "descriptors that were not closed");
}

}  // namespace ferovane::testing
