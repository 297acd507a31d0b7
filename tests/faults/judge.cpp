#include "tests/faults/judge.h"

#include <algorithm>

#include "core/model/json_codec.h"
#include "tests/faults/product_scope.h"

namespace ferovane::testing {
namespace {

using simulator::Property;

constexpr const char* kConfirmed = "控制已确认生效";
constexpr const char* kSystemManaged = "风扇由系统管理";
constexpr const char* kNoFans = "没有可读取的风扇";
constexpr const char* kNoMemory = "内存不足，操作未完成";
constexpr const char* kUnreturned = "恢复自动风扇失败";

std::string sourceName(PowerSource source) {
    return source == PowerSource::ac ? "AC Power" : "Battery Power";
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

Judge::Judge(FaultWorld& world, const Flow& flow)
    : world_(world), flow_(flow), settingsBefore_(world.mac.powerSettings()) {
    world.onOutput = [this](const std::string& line) { hearOutput(line); };
    world.atEnd = [this] { checkEnd(); };
}

void Judge::complain(const std::string& text) {
    complaints.push_back(text);
}

std::string Judge::told() const {
    return world_.output + world_.errors + world_.undelivered;
}

std::vector<int> Judge::fansManual() const {
    if (!flow_.returnsAll) {
        return world_.spy.fansLeftManual();
    }
    std::vector<int> fans;
    for (int fan = 0; fan < world_.mac.fanCount(); ++fan) {
        const bool listed = world_.mac.hasKey("F" + std::to_string(fan) + "Tg");
        if (listed && world_.mac.fanManual(fan) && !world_.othersSince.count(fan)) {
            fans.push_back(fan);
        }
    }
    return fans;
}

std::vector<int> Judge::fansLeft() const {
    std::vector<int> fans = fansManual();
    std::erase_if(fans, [this](int fan) { return world_.spy.saidAutomatic(fan); });
    return fans;
}

// ---- What was said -----------------------------------------------------------------------------

void Judge::hearOutput(const std::string& line) {
    if (flow_.isSession()) {
        try {
            hearReply(decodeJson<ControlReply>(line));
        } catch (const std::exception& error) {
            complain("a reply that is none: " + line + ": " + error.what());
        }
        return;
    }
    // Every one-shot command says its one line of success last.
    if (flow_.controlsFans) {
        if (!world_.spy.unconfirmed().empty()) {
            complain("success told, not read back: " + world_.spy.unconfirmed());
        }
        if (!fansLeft().empty()) {
            complain("success told with a fan in manual mode");
        }
    }
}

void Judge::hearReply(const ControlReply& reply) {
    if (!reply.ok) {
        return;
    }
    if (reply.turbo && !world_.deaf &&
        (*reply.turbo == 1) != (world_.mac.value(Property::kExtensionLoaded).value_or(0) == 1)) {
        complain("a wrong turbo state was told");
    }
    checkPowerClaim(reply);
    if (reply.message == kConfirmed && reply.fanStatus) {
        for (const FanTarget& target : reply.fanStatus->targets) {
            if (!world_.spy.wasConfirmedManual(static_cast<int>(target.id))) {
                complain("control told, never read back");
            }
        }
    } else if (reply.message == kSystemManaged || reply.message == kConfirmed) {
        if (!reply.session && !fansLeft().empty()) {
            complain("fans told to be the system's, which they are not");
        }
        if (!reply.session && !world_.spy.modesConfirmed()) {
            complain("fans told to be the system's, not read back: " + world_.spy.unconfirmed());
        }
    }
}

void Judge::checkPowerClaim(const ControlReply& reply) {
    if (!reply.power || !reply.power->backup) {
        return;
    }
    for (const PowerEdit& edit : reply.power->backup->edits) {
        const auto value = world_.mac.powerSetting(sourceName(edit.source), rawValue(edit.key));
        if (value != std::to_string(edit.after)) {
            complain("a setting told to be changed that is not: " + edit.id());
        }
    }
    if (reply.power->backup->turboBefore &&
        world_.mac.value(Property::kExtensionLoaded).value_or(0) != 1) {
        complain("turbo told to be changed that is not");
    }
}

// ---- What is left ------------------------------------------------------------------------------

void Judge::checkEnd() {
    world_.mac.advance(settlingSeconds);
    checkFansLeft();
    checkPowerLeft();
    if (world_.diedHolding) {
        complain("a signal would have ended the helper while it held fans");
    }
    for (const std::string& trespass : world_.spy.trespasses()) {
        complain(trespass);
    }
    if (flow_.handsOff && world_.othersSince.empty() && world_.spy.wroteBesideOther() &&
        !world_.spy.liedTo()) {
        complain("written to while another program holds a fan");
    }
    if (!flow_.isSession() && world_.endedWith == 0 &&
        (world_.output.empty() || world_.output.back() != '\n')) {
        complain("status 0 without a word of success");
    }
}

void Judge::checkFansLeft() {
    const std::string text = told();
    const std::vector<int> left = fansLeft();
    liedTo = left.size() < fansManual().size();
    leftManual = !left.empty();
    const bool armed = world_.guardianRecord.ends_with("held ");
    if (left.empty()) {
        if (armed && !contains(text, kUnreturned) && !world_.muffled) {
            complain("the guardian stays on guard, and nobody told why");
        }
        return;
    }
    const bool isTold =
        world_.muffled || contains(text, kUnreturned) ||
        (flow_.returnsAll && (contains(text, kNoFans) || contains(text, kNoMemory)));
    if (!isTold) {
        complain("a fan left in manual mode, and nobody told");
    }
    const bool isCutOff = world_.muffled || !world_.undelivered.empty();
    for (const int fan : left) {
        if (!flow_.isSession() && !flow_.returnsAll && !isCutOff && !names(text, fan)) {
            complain("fan " + std::to_string(fan) + " left in manual mode, and not named");
        }
    }
    if (!flow_.isSession() && world_.endedWith == 0) {
        complain("success with a fan left in manual mode");
    }
    if (!flow_.returnsAll && !armed) {
        complain("a fan left in manual mode, and the guardian let go: " + world_.guardianRecord);
    }
}

// A plan that failed at once is undone, or the user is told what of it was not.
void Judge::checkPowerLeft() {
    const bool refused = world_.output.rfind("{\"ok\":false", 0) == 0;
    if (!flow_.changesPower || !refused ||
        contains(world_.output, "\n{\"ok\":true,\"message\":\"原")) {
        return;
    }
    for (const auto& before : settingsBefore_) {
        if (world_.mac.powerSetting(before.source, before.name) != before.value &&
            !contains(told(), "；部分原设置未确认恢复：")) {
            complain("a plan failed, and a setting is left changed: " + before.name);
        }
    }
}

}  // namespace ferovane::testing
