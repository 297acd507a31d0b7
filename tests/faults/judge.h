// Whether the helper kept its promises in one run, by what was written to the machine, how the
// machine stands, and what the user was told.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/control/control_reply.h"
#include "core/model/json_codec.h"
#include "tests/faults/failing_memory.h"
#include "tests/faults/fault_kinds.h"

namespace ferovane::testing {

class Judge {
public:
    // What it did wrong, in words; empty when it did nothing wrong.
    std::vector<std::string> complaints;
    bool isLeft = false;  // a fan is in manual mode that should not be; perhaps rightly told so

    // Looks at the world from now on. All must outlive this. found: how the machine was found.
    Judge(FaultWorld& world, const Flow& flow, const FaultKind* found)
        : world_(world),
          flow_(flow),
          found_(found),
          start_(world.mac.now()),
          driver_(driverLoaded()),
          descriptors_(openDescriptors()) {
        for (int i = 0; i < world.mac.fanCount(); ++i) {
            const FanState fan = world.fan(i);
            fans_.push_back({fan.mode, fan.others ? std::optional<std::size_t>(0) : std::nullopt});
        }
        if (world.mac.number("Ftst").value_or(0) != 0) {
            unlockSince_ = 0;
        }
        if (flow.cause != nullptr) {
            causeAt_ = start_ + flow.ending;
        }
        world.beforeFanWrite = [this](const auto& writes) { seeWrites(writes); };
        world.afterControllerCall = [this] { seeMachine(); };
        world.toGuardian = [this](bool held) {
            complainIf(!held && leavesKnown(),
                       "the guardian told that fans are returned that are not");
        };
        world.onOutput = [this](const std::string& line) { hearOutput(line); };
        world.onLog = [this](const std::string& line) { hearLog(line); };
        world.atEnd = [this] { checkEnd(); };
    }

    // Just before it does.
    void strikes(const FaultKind& kind, const Call& call) {
        const bool isOfOneKey = kind.has("key=@");
        const std::string struck = isOfOneKey ? call.keyText() : "";
        quiet_ = false;
        calm_ = calm_ && kind.harm == Harm::none;
        lastHitAt_ = kind.harm == Harm::none ? lastHitAt_ : now();
        using enum CallKind;
        toolsWrong_ = toolsWrong_ || (kind.calls & ~calls({tool, threadStart, probe})) == 0;
        complainIf(kind.is("SIG") && wrote_ && world_.handled.empty(),
                   "a signal would have ended the helper in the middle");
        slow_ =
            slow_ || !(kind.is("refuse") || kind.harm == Harm::rival || kind.harm == Harm::cause);
        switch (kind.harm) {
            case Harm::lies:
                lied_.insert(struck);
                [[fallthrough]];
            case Harm::hit:
                hit_.insert(struck);
                break;
            case Harm::late:
                late_.insert(struck);
                hit_.insert(struck);
                break;
            case Harm::time:
                timeIsWrong_ = true;
                slept_ = slept_ || kind.is("sleep");
                if (kind.is("sleep")) {  // every fan is the system's again
                    unlockSince_.reset();
                    for (Fan& fan : fans_) {
                        fan.othersSince.reset();
                    }
                }
                break;
            case Harm::rival:
                seeRival(kind);
                break;
            case Harm::cause:
                // A signal that nobody looks after yet would end the process before it has begun.
                if (!kind.is("SIG") || !world_.handled.empty()) {
                    causeAt_ = std::min(causeAt_, now());
                }
                break;
            case Harm::channel:  // which ends its session
                world_.farewellAt = std::min(world_.farewellAt, now());
                break;
            default:
                break;
        }
        // A lease must not go on where it can no longer see.
        const bool isBlind =
            kind.is("refuse-read") && !kind.has("times") &&
            (struck == "FNum" || struck == "FS! " ||
             (struck[0] == 'F' && (struck.ends_with("Tg") || struck.ends_with("Md"))));
        const bool isCold = kind.is("temperatures") && !flow_.cooling;
        if ((isBlind || isCold || kind.is("vanish-fan")) && held_ &&
            now() > heldSince_ + takingSeconds() + 1) {
            loses(now());
            onlyMoved_ = false;
        }
    }

    // The helper's process has; everything about it is gone.
    void ended(int status) {
        complainIf(status != 0 && world_.errors.empty() && !isCutOff(), "a failure without a word");
        complainIf(!(world_.mac.ports() == simulator::PortCounts{}),
                   "ports that were not given back");
        complainIf(openDescriptors() != descriptors_, "descriptors that were not closed");
        const bool told = !world_.output.empty() && world_.output.back() == '\n';
        if (!flow_.isSession()) {
            complainIf(status == 0 && !told, "status 0 without a word of success");
            complainIf(status == 0 && isLeft && leavesKnown(),
                       "success with a fan left in manual mode");
        }
        const double begun = 1 + takingSeconds() + (flow_.usesTools() ? kReplySeconds : 0);
        if (isCalm() && flow_.ending > begun) {
            checkFailure(status);
        }
    }

private:
    using Keys = std::set<std::string>;  // "": all of them

    struct Fan {
        double modeBefore;
        std::optional<std::size_t> othersSince;  // calls made before another program took it
        bool returnedOfOthers = false;
        bool taken = false;      // once
        bool isTouched = false;  // or returned
        int orders = 0;          // to be automatic, since it was last told to be manual
        double orderedAt = 0;    // the last of them
    };

    static constexpr const char* kConfirmed = "控制已确认生效";
    static constexpr const char* kSystemManaged = "风扇由系统管理";
    static constexpr const char* kNoFans = "没有可读取的风扇";
    static constexpr const char* kNoMemory = "内存不足，操作未完成";
    static constexpr const char* kUnreturned = "恢复自动风扇失败";
    static constexpr const char* kSomebodyElses = "风扇未处于系统自动";
    static constexpr const char* kUnlockTaken = "风扇控制交接已被占用";
    static constexpr const char* kTurboNotPutBack = "睿频回退失败";

    static constexpr double kRoundedRpm = 3;  // a target is kept in steps below this
    static constexpr double kHandBackSeconds =
        14;                                      // a round, a switch that fails and a second chance
    static constexpr double kSecondsPerFan = 3;  // of these
    static constexpr double kSlowSecondsPerFan = 12;  // when every write to it is awaited in vain
    static constexpr double kEndsSeconds = 45;  // after a cause to stop, with the longest patience
    static constexpr double kNoticingSeconds = 12;  // a round, and the hand-back
    static constexpr double kRivalPeriodSeconds = 25;
    static constexpr double kLeaseSlack = 5;        // seconds, of taking and handing back
    static constexpr double kTakingSeconds = 0.5;   // per fan, when nothing is wrong
    static constexpr double kReplySeconds = 7;      // likewise, with a switch of turbo
    static constexpr double kSettlingSeconds = 12;  // more than delayed writes in a row need
    static constexpr double kTakeWindow =
        0.06;  // between the last look for a cause to stop and a take
    static constexpr double kSessionWaits =
        11.5;  // seconds for its lease to end, before its process does
    static constexpr double kLongestSilence = 20;  // between two attempts to hand back
    static constexpr int kAttempts = 2;            // to hand back, whatever happens
    static constexpr int kPatientAttempts = 8;     // of a session
    static constexpr std::size_t kCallsPerFan =
        10;  // of the last look at all fans before one is taken
    static constexpr std::size_t kCallsOfTaking = 14;
    static constexpr std::size_t kCallsOfReadBack = 40;  // before the target follows

    void loses(double since) { interferedAt_ = std::min(interferedAt_, since); }
    Fan& of(int fan) { return fans_[static_cast<std::size_t>(fan)]; }
    bool isTouched(int fan) const { return hasSwitch(hit_, fan) || has(hit_, {"FNum"}); }
    bool isCalm() const { return calm_ && !isHit(); }
    bool isCutOff() const { return world_.muffled || !world_.undelivered.empty(); }
    double now() { return world_.mac.now(); }

    static int openDescriptors() {
        return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                              std::filesystem::directory_iterator()));
    }

    static std::string key(int fan, const char* name) { return "F" + std::to_string(fan) + name; }

    static bool contains(const std::string& text, const std::string& part) {
        return text.find(part) != std::string::npos;
    }

    // Whether a text names this fan among those that could not be given back.
    static bool names(const std::string& text, int fan) {
        const std::string number = std::to_string(fan + 1);
        return std::regex_search(text, std::regex("（风扇 ([0-9]+、)*" + number + "(、|）)"));
    }

    void complainIf(bool isWrong, const std::string& text) {
        if (isWrong && std::find(complaints.begin(), complaints.end(), text) == complaints.end()) {
            complaints.push_back(text);
        }
    }

    // ---- What may excuse it
    // ------------------------------------------------------------------------

    static bool has(const Keys& keys, std::initializer_list<std::string> any) {
        return keys.count("") > 0 ||
               std::any_of(any.begin(), any.end(),
                           [&](const std::string& key) { return keys.count(key) > 0; });
    }

    static bool hasSwitch(const Keys& keys, int fan) {
        return has(keys, {key(fan, "Md"), key(fan, "md"), "FS! ", "Ftst"});
    }

    bool isHit() const { return !hit_.empty() || FailingMemory::hasStruck(); }

    bool isFit() const {
        return found_ == nullptr || found_->harm == Harm::none ||
               (flow_.returnsAll && found_->harm == Harm::unfit);
    }

    int timesAsked(Ask ask) const {
        return static_cast<int>(
            std::count_if(world_.asked.begin(), world_.asked.end(),
                          [ask](const Asked& asked) { return asked.ask == ask; }));
    }

    bool mayThinkItReturned(int fan) const {
        return hasSwitch(lied_, fan) || hasSwitch(late_, fan) ||
               (flow_.returnsAll && has(lied_, {"FNum"}));
    }

    // A controller that obeys would have returned the fan: it was told to often enough, or there
    // was no time to. Only "auto" has to find out first how to tell it.
    bool mayLeave(int fan, double end) {
        if (flow_.returnsAll) {
            return of(fan).orders > 0 || isTouched(fan) || FailingMemory::hasStruck();
        }
        const double leaves = std::min(causeAt_, world_.farewellAt);
        return of(fan).orders >= (mayThinkItReturned(fan) ? 1 : kAttempts) ||
               has(lied_, {"FS! "}) || (flow_.isSession() && end > leaves + kSessionWaits);
    }

    double slowest(double seconds) const {
        return seconds +
               static_cast<double>(fans_.size()) * (isCalm() ? kSecondsPerFan : kSlowSecondsPerFan);
    }

    double takingSeconds() const { return kTakingSeconds * static_cast<double>(fans_.size()); }

    // ---- What befalls the helper
    // -------------------------------------------------------------------

    void seeRival(const FaultKind& kind) {
        rival_ = true;
        const bool keeps = kind.is("keep-target");
        rivalCalls_ =
            keeps ? std::numeric_limits<std::size_t>::max() : std::max(rivalCalls_, world_.calls);
        const int fan = kind.is("take-fan") ? static_cast<int>(fans_.size()) - 1 : 0;
        const FanState first = world_.fan(0);
        if (kind.is("hold-unlock")) {
            if (world_.mac.hasKey("Ftst")) {
                unlockSince_ = unlockSince_.value_or(world_.calls);
            }
            return;
        }
        if (kind.is("release-fan")) {
            of(0).othersSince.reset();
        }
        if ((kind.is("take-fan") || keeps) && !world_.fan(fan).manual) {
            of(fan).othersSince = world_.calls;
        } else if (fan == 0 && first.manual && !first.others &&
                   now() > heldSince_ + takingSeconds() + 1) {
            loses(now());
            onlyMoved_ = kind.is("drift-target");
            keptAt_ = keeps ? std::min(keptAt_, now()) : keptAt_;
        }
    }

    // ---- What was written
    // --------------------------------------------------------------------------

    void seeWrites(const std::vector<FanWrite>& writes) {
        wrote_ = wrote_ || !writes.empty();
        const bool isDenied = found_ != nullptr && found_->harm == Harm::denied;
        complainIf((!flow_.controlsFans || isDenied) && !writes.empty(),
                   "fans written to, which nobody asked for or might ask for");
        // One that cannot be read is set as it was before the first fan.
        const auto taken = std::count_if(writes.begin(), writes.end(), [&](const FanWrite& write) {
            return write.takes() && !world_.fan(write.fan).manual;
        });
        complainIf(taken > 1 && !has(lied_, {"FS! "}) && !rival_ && !slept_,
                   "more than one fan switched by a mask");
        for (const FanWrite& write : writes) {
            if (!write.isMode) {
                seeTarget(write);
            }
            if (write.returns()) {
                seeReturning(write);
            } else {
                seeTaking(write);
            }
        }
    }

    void seeTarget(const FanWrite& write) {
        const FanState fan = world_.fan(write.fan);
        if (onlyMoved_ && write.fan == 0) {
            interferedAt_ = Turns::kForever;
        }
        if (has(lied_, {key(write.fan, "Mn"), key(write.fan, "Mx")})) {
            return;
        }
        complainIf(
            write.value < fan.minimum - kRoundedRpm || write.value > fan.maximum + kRoundedRpm,
            "a target out of the rated range");
        complainIf(flow_.cooling && write.value < fan.maximum - kRoundedRpm,
                   "cooled below the rated maximum");
    }

    void seeTaking(const FanWrite& write) {
        complainIf(!world_.guarded, "a fan taken, and the guardian does not know");
        complainIf(!logged_ && !mayThinkItReturned(write.fan),
                   "a fan taken, and the log does not know");
        complainIf(!isFit() && timesAsked(Ask::automatic) == 0 && lied_.empty() &&
                       hit_.count("") == 0 && !rival_ && !slept_,
                   "a fan taken that had to be refused");
        Fan& fan = of(write.fan);
        const std::size_t window =
            kCallsPerFan * fans_.size() + kCallsOfTaking + (write.isMode ? 0 : kCallsOfReadBack);
        if (fan.othersSince && world_.calls <= *fan.othersSince + window) {
            fan.othersSince.reset();  // taken unknowingly: from here on nobody could tell
        } else
            complainIf(!isTouched(write.fan) && fan.othersSince && world_.fan(write.fan).others,
                       "a fan taken that another program held");
        complainIf(!isTouched(write.fan) && write.isMode && unlockSince_ &&
                       flow_.machine->appleSilicon && !held_ &&
                       world_.mac.number("Ftst").value_or(0) != 0 &&
                       world_.calls > *unlockSince_ + window,
                   "a fan taken while another program had the unlock");
        const bool isTooLate = flow_.isSession()
                                   ? !held_ && answered_ < world_.asked.size() &&
                                         causeAt_ < world_.asked[answered_].at &&
                                         world_.farewellAt == Turns::kForever
                                   : flow_.cooling && !fan.taken && now() > causeAt_ + kTakeWindow;
        complainIf(write.isMode && isTooLate && !slept_, "a fan taken after a cause to stop");
        if (write.isMode) {
            fan.taken = fan.isTouched = true;
            fan.orders = 0;
        }
        if (!held_) {
            held_ = wasHeld_ = true;
            heldSince_ = now();
        }
    }

    void seeReturning(const FanWrite& write) {
        Fan& fan = of(write.fan);
        fan.isTouched = true;
        ++fan.orders;
        fan.orderedAt = now();
        if (world_.fan(write.fan).others) {
            fan.returnedOfOthers = !fan.taken;
            complainIf(!isFit() && flow_.lease && isCalm(),
                       "a fan of another program returned, which had to be left alone");
        }
    }

    // ---- How the machine stands
    // --------------------------------------------------------------------

    void seeMachine() {
        if (!held_) {
            return;
        }
        for (const int fan : world_.fansTaken()) {
            if (of(fan).orders == 0) {
                return;
            }
        }
        held_ = false;
        heldUntil_ = now();
        const double noticed = keptAt_ < Turns::kForever ? kRivalPeriodSeconds : 0;
        const double longest = timeIsWrong_ ? 2 * flow_.seconds : flow_.seconds;
        const bool isBlind = hasSwitch(lied_, 0) || has(lied_, {"F0Tg", "FNum"});
        if (!slept_) {
            complainIf(heldUntil_ - heldSince_ >
                           longest + (quiet_ && !isHit() ? takingSeconds() + world_.pauseSlice
                                                         : slowest(kLeaseSlack)),
                       "fans held for longer than a lease may");
            complainIf(heldUntil_ > refusedAt_ + slowest(kHandBackSeconds),
                       "fans held for long by a lease that was refused");
            complainIf(heldUntil_ > std::max(causeAt_, heldSince_) + slowest(kHandBackSeconds),
                       "fans held for long after a cause to stop");
            complainIf(heldUntil_ > interferedAt_ + slowest(noticed + kNoticingSeconds) && !isBlind,
                       "a lease that went on while another program changed its fan");
        }
        interferedAt_ = keptAt_ = refusedAt_ = Turns::kForever;
    }

    // Those that were somebody else's before are "auto"'s, too.
    std::vector<int> fansLeft() {
        if (!flow_.returnsAll) {
            return world_.fansTaken();
        }
        std::vector<int> left;
        for (int fan = 0; fan < static_cast<int>(fans_.size()); ++fan) {
            if (world_.fan(fan).manual && of(fan).othersSince.value_or(0) == 0 &&
                world_.mac.hasKey(key(fan, "Tg"))) {
                left.push_back(fan);
            }
        }
        return left;
    }

    bool leavesKnown() {
        const std::vector<int> left = fansLeft();
        return std::any_of(left.begin(), left.end(),
                           [this](int fan) { return !mayThinkItReturned(fan); });
    }

    double driverLoaded() {
        return world_.mac.value(simulator::Property::kExtensionLoaded).value_or(0);
    }

    // ---- What was told
    // -----------------------------------------------------------------------------

    void hearOutput(const std::string& line) {
        if (!flow_.isSession()) {
            return complainIf(flow_.controlsFans && leavesKnown(),
                              "success told with a fan in manual mode");
        }
        try {
            const auto reply = decodeJson<ControlReply>(line);
            if (answered_ >= world_.asked.size()) {
                return complainIf(true, "a reply to nothing: " + line);
            }
            const Asked& asked = world_.asked[answered_++];
            const double since = std::max(asked.at, std::exchange(answeredAt_, now()));
            complainIf(now() > since + kReplySeconds + 2 * takingSeconds() && !slow_,
                       "a reply that took long");
            hearReply(reply, asked);
        } catch (const std::exception& error) {
            complainIf(true, "a reply that is none: " + line + ": " + error.what());
        }
    }

    void hearLog(const std::string& line) {
        const bool begins = contains(line, "风扇控制开始");
        if (begins || contains(line, "风扇控制结束")) {
            complainIf(logged_ == begins, "the log's leases do not begin and end in turn");
            logged_ = begins;
        }
        complainIf(contains(line, "风扇已恢复") && leavesKnown(),
                   "the log told that fans are returned that are not");
    }

    void hearReply(const ControlReply& reply, const Asked& asked) {
        const Ask ask = asked.ask;
        checkForeseen(reply, ask);
        const double driver = driverLoaded();
        if (!reply.ok) {
            leaseEnds_ = ask == Ask::refused ? leaseEnds_ : 0;
            refusedAt_ = ask == Ask::lease && held_ ? std::min(refusedAt_, now()) : refusedAt_;
            return;
        }
        driver_ = driver;
        complainIf(reply.turbo && !toolsWrong_ && *reply.turbo != static_cast<std::int64_t>(driver),
                   "a wrong turbo state was told");
        complainIf(ask == Ask::lease && reply.message != kConfirmed,
                   "a lease that began, and was not confirmed");
        if (reply.message == kConfirmed && ask != Ask::automatic) {
            checkControlTold(reply);
        } else {
            complainIf(!reply.session && !contains(reply.message, kUnreturned) && leavesKnown(),
                       "fans told to be the system's, which they are not");
        }
        if (ask == Ask::automatic) {
            leaseEnds_ = 0;
            for (int fan = 0; fan < static_cast<int>(fans_.size()); ++fan) {
                complainIf(world_.fan(fan).manual && world_.mac.hasKey(key(fan, "Tg")) &&
                               !mayThinkItReturned(fan) && !has(lied_, {"FNum"}) &&
                               rivalCalls_ <= asked.calls,
                           "every fan told to be returned, and one is not");
            }
            complainIf(reply.session.has_value(), "a lease told to run on, which was to end");
        }
        complainIf(ask == Ask::shutdown && reply.message != kSystemManaged,
                   "something else told than that the fans are the system's");
    }

    void checkControlTold(const ControlReply& reply) {
        if (!reply.session || !reply.fanStatus) {
            return complainIf(true, "control told, and not of which lease");
        }
        leaseEnds_ = now() + reply.fanStatus->remainingSeconds;
        // What strikes a lease ends it within a round.
        const bool isOver = now() >= causeAt_ || now() < lastHitAt_ + slowest(kNoticingSeconds) ||
                            FailingMemory::hasStruck();
        if (isOver || rival_ || timeIsWrong_ || !flow_.machine->canBeHeld) {
            return;
        }
        complainIf(reply.fanStatus->targets.size() != fans_.size() && !has(lied_, {"FNum"}),
                   "control told of other fans than there are");
        for (int fan = 0; fan < static_cast<int>(fans_.size()); ++fan) {
            const bool isEnding =
                of(fan).orders > 0 && now() < of(fan).orderedAt + kNoticingSeconds;
            complainIf(
                !isEnding && !world_.fan(fan).manual && !hasSwitch(lied_, fan) && late_.empty(),
                "control told of a fan that is not so");
        }
    }

    // When nothing is wrong, what is asked for is done.
    void checkForeseen(const ControlReply& reply, Ask ask) {
        const bool mustBeRefused =
            ask == Ask::refused || (ask == Ask::lease && !isFit() && isCalm());
        complainIf(
            reply.ok && mustBeRefused && (ask == Ask::refused || timesAsked(Ask::automatic) == 0),
            "done what had to be refused");
        const bool isFine = isCalm() && isFit() && flow_.machine->canBeHeld && now() < causeAt_;
        if (!isFine || ask == Ask::refused) {
            return;
        }
        complainIf(!reply.ok, "refused with nothing wrong: " + reply.message);
        complainIf(ask == Ask::status &&
                       (leaseEnds_ > now() + 1) != (reply.message == kConfirmed) &&
                       (leaseEnds_ > now() + 1 || now() > leaseEnds_ + kLeaseSlack),
                   "a status that is not so: " + reply.message);
    }

    // ---- What is left
    // ------------------------------------------------------------------------------

    void checkEnd() {
        const double end = now();
        seeMachine();
        checkFansLeft();
        complainIf(
            end > std::max(causeAt_, start_) + slowest(kEndsSeconds) && !toolsWrong_ && !slept_,
            "it did not end for long after a cause to");
        checkRefusal(world_.told());
        const double driver = driverLoaded();
        const bool switches = flow_.turboDisabled >= 0;
        const double wanted = switches && !world_.output.empty() ? flow_.turboDisabled : driver_;
        complainIf(
            driver != wanted && !toolsWrong_ && !contains(world_.told(), kTurboNotPutBack) &&
                !((switches || flow_.isSession()) && (isCutOff() || FailingMemory::hasStruck())),
            "turbo is not as it was, nor as it was told");
    }

    // A fan that was refused because it is not free stays untouched.
    void checkRefusal(const std::string& told) {
        const bool isOthers = contains(told, kSomebodyElses);
        const int leases = flow_.lease ? 1 : timesAsked(Ask::lease);
        if ((!isOthers && !contains(told, kUnlockTaken)) || isHit() || leases != 1 ||
            timesAsked(Ask::automatic) > 0) {
            return;
        }
        complainIf(std::ranges::all_of(fans_, &Fan::isTouched),
                   "no fan untouched, though one was refused");
        complainIf(isOthers && std::ranges::any_of(fans_, &Fan::returnedOfOthers),
                   "a fan of another program returned");
    }

    void checkFansLeft() {
        const double end = now();
        world_.mac.advance(late_.empty() ? 0 : kSettlingSeconds);
        const std::string told = world_.told();
        const bool cutOff = isCutOff();
        complainIf(logged_ && !contains(told, kUnreturned),
                   "a lease ended, and the log does not know");
        const std::vector<int> left = fansLeft();
        isLeft = !left.empty();
        if (left.empty()) {
            complainIf(world_.guarded && !contains(told, kUnreturned) && !cutOff,
                       "the guardian stays on guard, and nobody told why");
            complainIf(
                contains(told, kUnreturned) && !isHit() && !rival_ && !timeIsWrong_ && isFit(),
                "a hand-back told to have failed that did not");
            return;
        }
        for (const int fan : left) {
            const std::string name = "fan " + std::to_string(fan);
            complainIf(!mayLeave(fan, end), name + " left in manual mode without need");
            complainIf(flow_.lease && !cutOff && !mayThinkItReturned(fan) && !names(told, fan),
                       name + " left in manual mode, and not named");
            complainIf(flow_.isSession() && of(fan).orders > 0 &&
                           of(fan).orders < kPatientAttempts &&
                           end > of(fan).orderedAt + slowest(kLongestSilence) && !slept_,
                       "a session gave up handing back");
        }
        if (leavesKnown()) {
            complainIf(!flow_.returnsAll && !world_.guarded,
                       "a fan left in manual mode, and the guardian let go");
            const bool isTold =
                cutOff || contains(told, kUnreturned) ||
                (flow_.returnsAll && (contains(told, kNoFans) || contains(told, kNoMemory)));
            complainIf(!isTold, "a fan left in manual mode, and nobody told");
        }
    }

    // Where nothing has struck: what had to be refused was, and nothing else.
    void checkFailure(int status) {
        if (!isFit()) {
            return complainIf((flow_.lease || found_->harm == Harm::denied) && status == 0,
                              "success in what had to be refused");
        }
        complainIf(status != 0 && (!flow_.lease || flow_.machine->canBeHeld),
                   "failed with nothing wrong: " + world_.told());
        if (!flow_.lease || status != 0) {
            return;
        }
        for (int fan = 0; fan < static_cast<int>(fans_.size()); ++fan) {
            complainIf(world_.fan(fan).mode != of(fan).modeBefore,
                       "a fan in another mode than it was found in");
        }
        const double least = std::min(flow_.seconds, flow_.ending - (heldSince_ - start_)) - 3;
        complainIf(!wasHeld_ || heldUntil_ - heldSince_ < least,
                   "fans held for less than they were to be");
    }

    FaultWorld& world_;
    const Flow& flow_;
    const FaultKind* found_;
    const double start_;

    // What has struck.
    bool quiet_ = true, calm_ = true, slow_ = false, rival_ = false, slept_ = false;
    bool timeIsWrong_ = false, toolsWrong_ = false;
    Keys hit_, lied_, late_;  // hit_: in any way
    double lastHitAt_ = -Turns::kForever;
    double causeAt_ = Turns::kForever;
    double interferedAt_ = Turns::kForever;  // with a fan that was held
    bool onlyMoved_ = false;                 // its target, which the lease may set anew unknowing
    double keptAt_ = Turns::kForever;
    std::size_t rivalCalls_ = 0;              // made when one was last seen
    std::optional<std::size_t> unlockSince_;  // calls made before

    // What was seen.
    std::vector<Fan> fans_;
    double driver_;  // 1 when it should be loaded
    int descriptors_;
    bool held_ = false, wasHeld_ = false, wrote_ = false;
    bool logged_ = false;  // a lease that runs
    double heldSince_ = 0, heldUntil_ = 0;
    std::size_t answered_ = 0;
    double answeredAt_ = 0;
    double refusedAt_ = Turns::kForever;  // a lease that holds fans
    double leaseEnds_ = 0;                // of a session's lease, as was told; 0: none
};

}  // namespace ferovane::testing
