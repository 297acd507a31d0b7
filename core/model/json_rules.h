// What a record admits of a member beyond its type. Declared with the member (json_fields.h), asked
// by the record's own validation, and written into the published schemas, so that the three cannot
// differ. Coding looks at none of it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

#include "core/model/raw_enum.h"

namespace ferovane {

// For whoever reads the schema: a unit, or a rule that a schema cannot say.
struct JsonNote {
    std::string_view text;
};

// A number from `least` to `most`.
struct JsonRange {
    double least = -std::numeric_limits<double>::infinity();
    double most = std::numeric_limits<double>::infinity();
    bool aboveLeast = false;  // `least` itself is not admitted

    // False for NaN.
    constexpr bool admits(double value) const {
        return (aboveLeast ? value > least : value >= least) && value <= most;
    }
};

// One of these whole numbers.
template <std::size_t N>
struct JsonChoices {
    std::array<std::int64_t, N> values;

    constexpr bool admits(std::int64_t value) const {
        return std::find(values.begin(), values.end(), value) != values.end();
    }
};

// One of these texts.
template <std::size_t N>
struct JsonWords {
    std::array<std::string_view, N> words;
};

// The raw values of an enumeration, for a member that is plain text to the decoder.
template <class E>
constexpr auto jsonWordsOf() {
    constexpr std::size_t count = RawEnum<E>::cases.size();
    JsonWords<count> list{};
    for (std::size_t i = 0; i < count; ++i) {
        list.words[i] = RawEnum<E>::cases[i].raw;
    }
    return list;
}

// Texts that are known today; the member may hold others tomorrow.
template <std::size_t N>
struct JsonExamples {
    JsonWords<N> list;
};
template <std::size_t N>
JsonExamples(JsonWords<N>) -> JsonExamples<N>;

// A text of at most so many bytes in UTF-8.
struct JsonBytes {
    std::size_t most;

    constexpr bool admits(std::string_view text) const { return text.size() <= most; }
};

// An array of so many items.
struct JsonCount {
    std::size_t least, most;

    constexpr bool admits(std::size_t count) const { return count >= least && count <= most; }
};

// Of an array of records: what a member of every item, or of at least one, holds.
struct JsonEveryItem {
    std::string_view member;
    JsonRange range;
};
struct JsonSomeItem {
    std::string_view member;
    JsonRange range;
};

// Of an array of records: no two items hold the same pair in these members.
template <class First, class Second>
struct JsonDistinct {
    std::string_view first, second;
};

// A number whose range depends on another member of its record.
template <class E>
struct JsonRangeBy {
    std::string_view member;
    JsonRange (*range)(E);
};

struct JsonCondition {
    std::string_view member, value;
};

// The member must be there, and its other rules hold, when other members hold these values; what
// else it holds is looked at only then. `onlyThen`: at no other time may it be there.
template <std::size_t N>
struct JsonNeeded {
    std::array<JsonCondition, N> when;
    bool onlyThen = false;
};

}  // namespace ferovane
