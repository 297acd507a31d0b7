// How a record names its members for JSON: the one declaration that coding follows from.
#pragma once

#include <string_view>
#include <tuple>

#include "core/model/json_rules.h"

namespace ferovane {

template <class Record, class Member, class... Rules>
struct JsonField {
    std::string_view name;
    Member Record::*member;
    std::tuple<Rules...> rules;  // of json_rules.h
};

// A record lists its members in coding order, as a static member function:
//
//     static constexpr auto jsonFields() {
//         return std::tuple{jsonField("id", &FanTarget::id), jsonField("rpm", &FanTarget::rpm)};
//     }
//
// A std::optional member is left out when absent and may be missing when read; every other member
// is required. Enumerations with a RawEnum table are written as their raw value.
template <class Record, class Member, class... Rules>
constexpr JsonField<Record, Member, Rules...> jsonField(std::string_view name,
                                                        Member Record::*member, Rules... rules) {
    return {name, member, std::tuple<Rules...>(rules...)};
}

}  // namespace ferovane
