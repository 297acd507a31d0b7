// Writes the JSON Schemas (draft 2020-12) of the messages and of what the probes print, from the
// declarations of their records.
//
//     json-schemas DIRECTORY             writes them there
//     json-schemas --check DIRECTORY     fails when those there are not what it would write
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/fan/fan_keys.h"
#include "core/model/json_codec.h"
#include "core/model/snapshot.h"

namespace ferovane {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kUuidPattern =
    "^[0-9A-Fa-f]{8}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{4}-[0-9A-Fa-f]{12}$";
// A 29 February is let through in every year.
constexpr const char* kIso8601Pattern =
    "^([0-9]{4}|[+-][1-9][0-9]{4,8}|-(?!0000)[0-9]{4})-"
    "((0[13578]|1[02])-(0[1-9]|[12][0-9]|3[01])|(0[469]|11)-(0[1-9]|[12][0-9]|30)|"
    "02-(0[1-9]|[12][0-9]))T([01][0-9]|2[0-3]):[0-5][0-9]:[0-5][0-9]Z$";
constexpr const char* kSecondsNote = "seconds since 2001-01-01 00:00:00 UTC";

// How a record is to be described.
struct Form {
    JsonDates dates = JsonDates::secondsSinceReference;
    bool admitted = false;  // what its validation admits, not all that can be decoded
    bool nullable = false;  // null may stand for an absent member: read everywhere, never written
};

template <class T>
Json describe(const Form& form);

// A member in the making, and what its record will say of it beside the members.
struct Member {
    std::string name;
    Json value, unruled;
    Json& conditions;
    bool nullable;
};

Json number(double value) {
    const bool whole = std::trunc(value) == value && std::fabs(value) < 1e15;
    return whole ? Json(static_cast<std::int64_t>(value)) : Json(value);
}

template <class E>
Json rawValues() {
    Json values = Json::array();
    for (const auto& known : RawEnum<E>::cases) {
        values.push_back(known.raw);
    }
    return values;
}

// `schema`, and that member `name` has exactly this value.
Json holding(Json schema, std::string_view name, const Json& value) {
    schema["properties"][std::string(name)]["const"] = value;
    schema["required"].push_back(name);
    return schema;
}

// Of an array: no two items are such.
Json atMostOne(const Json& item) {
    return {{"contains", item}, {"minContains", 0}, {"maxContains", 1}};
}

void tighten(Json& schema, const char* keyword, double limit, bool least) {
    if (std::isfinite(limit) &&
        (!schema.contains(keyword) || (limit > schema[keyword].get<double>()) == least)) {
        schema[keyword] = number(limit);
    }
}

void tighten(Json& schema, const JsonRange& range) {
    tighten(schema, range.aboveLeast ? "exclusiveMinimum" : "minimum", range.least, true);
    tighten(schema, "maximum", range.most, false);
}

// Each rule in the words of a schema.

void say(Member& member, const JsonRange& rule) {
    tighten(member.value, rule);
}

template <std::size_t N>
void say(Member& member, const JsonChoices<N>& rule) {
    member.value = {{"type", "integer"}, {"enum", rule.values}};
}

template <std::size_t N>
void say(Member& member, const JsonWords<N>& rule) {
    member.value = {{"type", "string"}, {"enum", rule.words}};
}

void say(Member& member, const JsonBytes& rule) {
    member.value["maxLength"] = rule.most;
    member.value["$comment"] = "At most " + std::to_string(rule.most) +
                               " bytes in UTF-8, of which a character takes up to four.";
}

void say(Member& member, const JsonCount& rule) {
    member.value["minItems"] = rule.least;
    member.value["maxItems"] = rule.most;
}

void say(Member& member, const JsonEveryItem& rule) {
    tighten(member.value["items"]["properties"][std::string(rule.member)], rule.range);
}

void say(Member& member, const JsonSomeItem& rule) {
    Json& some = member.value["contains"];
    some["required"] = {rule.member};
    tighten(some["properties"][std::string(rule.member)], rule.range);
}

template <class First, class Second>
void say(Member& member, const JsonDistinct<First, Second>& rule) {
    for (const Json& first : rawValues<First>()) {
        for (const Json& second : rawValues<Second>()) {
            member.value["allOf"].push_back(
                atMostOne(holding(holding({}, rule.first, first), rule.second, second)));
        }
    }
}

template <class E>
void say(Member& member, const JsonRangeBy<E>& rule) {
    for (const auto& known : RawEnum<E>::cases) {
        Json then;
        tighten(then["properties"][member.name], rule.range(known.value));
        member.conditions.push_back({{"if", holding({}, rule.member, known.raw)}, {"then", then}});
    }
}

// These are said at other times.
void say(Member&, const JsonNote&) {}
template <std::size_t N>
void say(Member&, const JsonExamples<N>&) {}
template <std::size_t N>
void say(Member&, const JsonNeeded<N>&) {}

// Before the rules, and without them.
template <class Rule>
void sayNote(Member&, const Rule&) {}
void sayNote(Member& member, const JsonNote& note) {
    member.value["description"] = member.unruled["description"] = note.text;
}
template <std::size_t N>
void sayNote(Member& member, const JsonExamples<N>& known) {
    member.value["examples"] = member.unruled["examples"] = known.list.words;
}

// After the rules that then hold.
template <class Rule>
void sayNeed(Member&, const Rule&) {}
template <std::size_t N>
void sayNeed(Member& member, const JsonNeeded<N>& need) {
    Json condition, then = member.value;
    for (const auto& [name, value] : need.when) {
        condition = holding(std::move(condition), name, value);
    }
    Json rule{{"if", condition}};
    if (need.onlyThen) {
        then = {{"type", member.value["type"]}};
        rule["else"]["properties"][member.name] =
            member.nullable ? Json{{"type", "null"}} : Json(false);
    } else {
        member.value = member.unruled;
    }
    rule["then"] = {{"required", {member.name}}, {"properties", {{member.name, then}}}};
    member.conditions.push_back(rule);
}

template <class T>
std::type_identity<T> unwrapped(std::optional<T>*);
template <class T>
std::type_identity<T> unwrapped(T*);

void allowNull(Json& schema) {
    Json& types = schema["type"];
    if (!types.is_array()) {
        types = Json::array({types});
    }
    types.push_back("null");
    if (schema.contains("enum")) {
        schema["enum"].push_back(nullptr);
    }
}

template <class R>
Json describeRecord(const Form& form) {
    Json properties = Json::object(), required = Json::array(), conditions = Json::array();
    const auto add = [&]<class M, class... Rules>(const JsonField<R, M, Rules...>& field) {
        using Held = typename decltype(unwrapped(static_cast<M*>(nullptr)))::type;
        Form unruled = form;
        unruled.admitted = false;
        Member member{std::string(field.name), describe<Held>(form), describe<Held>(unruled),
                      conditions, form.nullable};
        const auto apply = [&](const Rules&... rules) {
            (sayNote(member, rules), ...);
            if (form.admitted) {
                (say(member, rules), ...);
                (sayNeed(member, rules), ...);
            }
        };
        std::apply(apply, field.rules);
        if (std::is_same_v<Held, M>) {
            required.push_back(member.name);
        } else if (form.nullable) {
            allowNull(member.value);
        }
        properties[member.name] = member.value;
    };
    std::apply([&](const auto&... fields) { (add(fields), ...); }, R::jsonFields());
    Json schema{{"type", "object"}, {"properties", properties}};
    for (const auto& [keyword, list] : {std::pair{"required", required}, {"allOf", conditions}}) {
        if (!list.empty()) {
            schema[keyword] = list;
        }
    }
    return schema;
}

template <class T>
Json describeParts(std::vector<T>*, const Form& form) {
    return {{"type", "array"}, {"items", describe<T>(form)}};
}

template <class T>
Json describeParts(std::map<std::string, T>*, const Form& form) {
    return {{"type", "object"}, {"additionalProperties", describe<T>(form)}};
}

// Key, value, key, value: each key at most once, and none without its value.
template <TextEnumeration E, class T>
Json describeParts(std::map<E, T>*, const Form& form) {
    Json places = Json::array(), once = Json::array(), lengths = Json::array({{{"maxItems", 0}}});
    for (const Json& key : rawValues<E>()) {
        places.push_back(describe<E>(form));
        places.push_back(describe<T>(form));
        once.push_back(atMostOne({{"const", key}}));
        lengths.push_back({{"minItems", places.size()}, {"maxItems", places.size()}});
    }
    return {{"type", "array"},       {"description", "alternates keys and their values"},
            {"prefixItems", places}, {"items", false},
            {"allOf", once},         {"anyOf", lengths}};
}

// The kinds of value that a scalar's own reader takes for what it wants.
template <class Integer>
void addLimits(Json& schema) {
    schema["minimum"] = std::numeric_limits<Integer>::min();
    schema["maximum"] = std::numeric_limits<Integer>::max();
}

template <class T>
Json describeScalar(const Form& form) {
    const auto takes = [&](const JsonScalar& scalar) {
        T value{};
        return JsonForm<T>::type.read(&value, scalar, form.dates) != JsonProblem::wrongType;
    };
    const bool whole = takes(std::int64_t{1}) && !takes(0.5);
    Json types = Json::array();
    if (takes(true)) {
        types.push_back("boolean");
    }
    if (takes(std::int64_t{1})) {
        types.push_back(whole ? "integer" : "number");
    }
    if (takes(std::string_view())) {
        types.push_back("string");
    }
    Json schema{{"type", types.size() == 1 ? types.front() : types}};
    if constexpr (JsonInteger<T>) {
        addLimits<T>(schema);
    } else if constexpr (RawEnumeration<T>) {
        schema["enum"] = rawValues<T>();
    } else if constexpr (std::is_same_v<T, Uuid>) {
        schema["pattern"] = kUuidPattern;
    } else if constexpr (std::is_same_v<T, Date>) {
        const bool text = form.dates == JsonDates::iso8601;
        schema[text ? "pattern" : "description"] = text ? kIso8601Pattern : kSecondsNote;
    } else if (whole) {
        addLimits<std::int64_t>(schema);
    }
    return schema;
}

template <class T>
Json describe(const Form& form) {
    if constexpr (JsonForm<T>::type.shape == JsonShape::scalar) {
        return describeScalar<T>(form);
    } else if constexpr (JsonRecord<T>) {
        return describeRecord<T>(form);
    } else {
        return describeParts(static_cast<T*>(nullptr), form);
    }
}

// What holds of every text, whatever its schema.
const std::string kText =
    "Beyond the schema: UTF-8 without a byte order mark; nests at most " +
    std::to_string(kMaxJsonDepth) +
    " deep; no name twice in one object; every number fits a double, and a whole number of 2^53 or "
    "more has neither point nor exponent. Members that are not listed are passed over.";
const std::string kLine = " One line of at most " + std::to_string(kMaxControlLineBytes) +
                          " bytes, the line feed not counted.";

Json named(const char* title, const std::string& comment, const Json& schema) {
    Json root{{"$schema", "https://json-schema.org/draft/2020-12/schema"},
              {"$id", std::string("urn:ferovane:") + title},
              {"title", title},
              {"$comment", comment}};
    root.update(schema);
    return root;
}

Json fanProbe() {
    Json schema = describe<std::map<std::string, double>>({});
    for (const std::string& key : FanKeys::ofFirstFan()) {
        schema["properties"][key] = schema["additionalProperties"];
    }
    return schema;
}

std::map<std::string, Json> schemas() {
    return {
        {"ControlRequest", named("ControlRequest", kText + kLine,
                                 describe<ControlRequest>({.admitted = true, .nullable = true}))},
        {"ControlReply", named("ControlReply", kText + kLine, describe<ControlReply>({}))},
        {"Snapshot", named("Snapshot", kText, describe<Snapshot>({.dates = JsonDates::iso8601}))},
        {"FanProbe", named("FanProbe", kText, fanProbe())},
    };
}

std::string contents(const std::filesystem::path& file) {
    std::ostringstream text;
    text << std::ifstream(file, std::ios::binary).rdbuf();
    return text.str();
}

int run(const std::filesystem::path& folder, bool check) {
    int wrong = 0;
    for (const auto& [name, schema] : schemas()) {
        const std::filesystem::path file = folder / (name + ".schema.json");
        const std::string text = schema.dump(2) + "\n";
        if (!check) {
            std::ofstream(file, std::ios::binary) << text;
        }
        if (contents(file) != text) {
            std::cerr << file.string() << (check ? ": not current\n" : ": cannot be written\n");
            wrong = 1;
        }
    }
    return wrong;
}

}  // namespace
}  // namespace ferovane

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    const bool check = words.size() == 2 && words.front() == "--check";
    if (words.size() != (check ? 2U : 1U)) {
        std::cerr << "json-schemas [--check] DIRECTORY\n";
        return 2;
    }
    return ferovane::run(words.back(), check);
}
