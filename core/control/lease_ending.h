// Why a fan lease that had been confirmed is over.
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <tuple>

#include "core/model/json_fields.h"
#include "core/model/raw_enum.h"

namespace ferovane {

enum class LeaseEnd { time, request, otherProgram, unreadable, sleep, owner, stop, failed };

struct LeaseEndCase {
    LeaseEnd value;
    std::string_view raw;
    std::string_view text;  // for the user; empty where the failure has its own
};

template <>
struct RawEnum<LeaseEnd> {
    static constexpr std::array<LeaseEndCase, 8> cases{{
        {LeaseEnd::time, "time", "控制时间已到"},
        {LeaseEnd::request, "request", "已按请求结束控制"},
        {LeaseEnd::otherProgram, "other-program", ""},
        {LeaseEnd::unreadable, "unreadable", ""},
        {LeaseEnd::sleep, "sleep", "电脑曾经休眠，控制已结束"},
        {LeaseEnd::owner, "owner", "发起程序已退出，控制已结束"},
        {LeaseEnd::stop, "stop", "辅助进程收到停止信号，控制已结束"},
        {LeaseEnd::failed, "failed", ""},
    }};
};

constexpr std::string_view textOf(LeaseEnd reason) {
    const auto& cases = RawEnum<LeaseEnd>::cases;
    return std::find_if(cases.begin(), cases.end(),
                        [&](const auto& c) { return c.value == reason; })
        ->text;
}

struct LeaseEnding {
    std::string session;  // the id under which its replies told of the lease
    std::string reason;   // a LeaseEnd's word; another version of the helper may know more
    std::string message;  // for the user

    bool operator==(const LeaseEnding&) const = default;

    static constexpr auto jsonFields() {
        using R = LeaseEnding;
        return std::tuple{jsonField("session", &R::session),
                          jsonField("reason", &R::reason, JsonExamples{jsonWordsOf<LeaseEnd>()},
                                    JsonNote{"there may be new ones"}),
                          jsonField("message", &R::message)};
    }
};

}  // namespace ferovane
