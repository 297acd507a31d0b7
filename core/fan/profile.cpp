#include "core/fan/profile.h"

#include <algorithm>

namespace ferovane {
namespace {

template <class Predicate>
const ProfileText* find(Predicate matches) {
    const auto found = std::find_if(kProfileTexts.begin(), kProfileTexts.end(), matches);
    return found == kProfileTexts.end() ? nullptr : &*found;
}

ProfileText textOf(Profile profile) {
    const ProfileText* text =
        find([&](const ProfileText& entry) { return entry.profile == profile; });
    return text != nullptr ? *text : ProfileText{profile, {}, {}, {}};
}

}  // namespace

std::string_view explanation(Profile profile) {
    return textOf(profile).explanation;
}

std::optional<Profile> profileNamed(std::string_view word) {
    const ProfileText* text = find([&](const ProfileText& entry) { return entry.command == word; });
    return text != nullptr ? std::optional(text->profile) : std::nullopt;
}

const FanCurve& curve(Profile profile) {
    switch (profile) {
        case Profile::quiet:
            return FanCurve::quiet();
        case Profile::performance:
            return FanCurve::performance();
        default:
            return FanCurve::balanced();
    }
}

bool disablesTurbo(Profile profile) {
    return profile == Profile::quiet || profile == Profile::eco;
}

}  // namespace ferovane
