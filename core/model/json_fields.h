// How a record names its members for JSON: the one declaration that coding follows from.
#pragma once

#include <string_view>

namespace ferovane {

template <class Record, class Member>
struct JsonField {
    std::string_view name;
    Member Record::*member;
};

// A record lists its members in coding order, as a static member function:
//
//     static constexpr auto jsonFields() {
//         return std::tuple{jsonField("id", &FanTarget::id), jsonField("rpm", &FanTarget::rpm)};
//     }
//
// A std::optional member is left out when absent and may be missing when read; every other member
// is required. Enumerations with a RawEnum table are written as their raw value.
template <class Record, class Member>
constexpr JsonField<Record, Member> jsonField(std::string_view name, Member Record::*member) {
    return {name, member};
}

}  // namespace ferovane
