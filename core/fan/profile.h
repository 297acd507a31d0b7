// The named operating modes.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "core/fan/fan_curve.h"
#include "core/model/json_rules.h"
#include "core/model/raw_enum.h"

namespace ferovane {

enum class Profile { automatic, eco, performance, balanced, quiet, custom };

struct ProfileText {
    Profile profile;
    std::string_view command;      // the word in requests and arguments
    std::string_view title;        // the name a user reads, which is also the raw value
    std::string_view explanation;  // a line below that name
};

inline constexpr std::array<ProfileText, 6> kProfileTexts{{
    {Profile::automatic, "automatic", "系统自动", "系统控制风扇 · 保留睿频设置"},
    {Profile::eco, "eco", "节能", "限制性能峰值 · 均衡散热"},
    {Profile::performance, "performance", "性能", "开启睿频 · 积极散热"},
    {Profile::balanced, "balanced", "均衡", "开启睿频 · 平衡温度与噪声"},
    {Profile::quiet, "quiet", "静音", "关闭睿频 · 温和散热"},
    {Profile::custom, "custom", "自定义", "按你的曲线运行 · 保留睿频设置"},
}};

template <>
struct RawEnum<Profile> {
    static constexpr auto cases = [] {
        std::array<RawCase<Profile>, kProfileTexts.size()> table{};
        for (std::size_t i = 0; i < table.size(); ++i) {
            table[i] = {kProfileTexts[i].profile, kProfileTexts[i].title};
        }
        return table;
    }();
};

inline constexpr auto kProfileWords = [] {
    JsonWords<kProfileTexts.size()> list{};
    for (std::size_t i = 0; i < list.words.size(); ++i) {
        list.words[i] = kProfileTexts[i].command;
    }
    return list;
}();

// In the order in which a user is offered them.
inline constexpr auto kAllProfiles = [] {
    std::array<Profile, kProfileTexts.size()> all{};
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = kProfileTexts[i].profile;
    }
    return all;
}();

constexpr std::string_view commandWord(Profile profile) {
    for (const ProfileText& text : kProfileTexts) {
        if (text.profile == profile) {
            return text.command;
        }
    }
    return {};
}
std::string_view explanation(Profile profile);

// The mode of exactly this command word.
std::optional<Profile> profileNamed(std::string_view word);

// The curve a mode runs on; a custom run replaces it by the curve it is given.
const FanCurve& curve(Profile profile);

// Whether a mode asks for turbo to be off.
bool disablesTurbo(Profile profile);

}  // namespace ferovane
