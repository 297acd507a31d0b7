#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <numeric>

#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/shortest_number.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

constexpr std::size_t kIndent = 2;

constexpr bool needsEscape(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

// Recursion follows the declarations of types, never the data, so it is as shallow as they are.
class Writer {
public:
    explicit Writer(const JsonStyle& style) : style_(style) {}

    void value(const JsonType& type, const void* value);
    std::string take() { return std::move(out_); }

private:
    // An object or array being written, as the visit of its items knows it.
    struct Walk {
        Writer& writer;
        const JsonType* item;
        std::string_view name = {};  // of a record's member
        bool empty = true;
    };

    static void visitMember(void* context, std::string_view, const void* item);
    static void visitListItem(void* context, std::string_view, const void* item);
    static void visitDictionaryItem(void* context, std::string_view key, const void* item);
    static void visitPair(void* context, std::string_view key, const void* item);

    void scalar(const JsonType& type, const void* value);
    void record(const JsonType& type, const void* record);
    void walk(const JsonType& type, const void* value, JsonType::Visit visit);
    void begin(char bracket);
    void end(char bracket, bool empty);
    void separate(bool& empty);
    void name(std::string_view name);
    void text(std::string_view text);
    void escaped(char c);
    void number(double number);

    const JsonStyle& style_;
    std::string out_;
    std::string scratch_;
    std::size_t level_ = 0;
    std::string_view lastName_;  // for a failure's message
};

void Writer::value(const JsonType& type, const void* value) {
    switch (type.shape) {
        case JsonShape::scalar:
            return scalar(type, value);
        case JsonShape::record:
            return record(type, value);
        case JsonShape::list:
            return walk(type, value, &visitListItem);
        case JsonShape::dictionary:
            return walk(type, value, &visitDictionaryItem);
        case JsonShape::alternating:
            return walk(type, value, &visitPair);
        case JsonShape::optional:
            return;  // written by the record that may leave it out
    }
}

void Writer::scalar(const JsonType& type, const void* value) {
    const JsonScalar scalar = type.write(value, style_.dates, scratch_);
    if (const auto* whole = std::get_if<std::int64_t>(&scalar)) {
        std::array<char, 20> digits;
        out_.append(digits.data(),
                    std::to_chars(digits.data(), digits.data() + digits.size(), *whole).ptr);
    } else if (const double* real = std::get_if<double>(&scalar)) {
        number(*real);
    } else if (const auto* string = std::get_if<std::string_view>(&scalar)) {
        text(*string);
    } else if (const bool* truth = std::get_if<bool>(&scalar)) {
        out_ += *truth ? "true" : "false";
    } else {
        out_ += "null";
    }
}

void Writer::record(const JsonType& type, const void* record) {
    std::array<std::uint8_t, kMaxJsonMembers> order;
    const auto end = order.begin() + static_cast<std::ptrdiff_t>(type.memberCount);
    std::iota(order.begin(), end, std::uint8_t{0});
    if (style_.sortedKeys) {
        std::sort(order.begin(), end, [&](std::uint8_t a, std::uint8_t b) {
            return type.members[a].name < type.members[b].name;
        });
    }
    begin('{');
    Walk walk{*this, nullptr};
    for (auto index = order.begin(); index != end; ++index) {
        const JsonMember& member = type.members[*index];
        const void* const place = member.value(record);
        walk.name = member.name;
        if (member.type->shape == JsonShape::optional) {
            walk.item = member.type->item;
            member.type->each(place, &visitMember, &walk);
        } else {
            walk.item = member.type;
            visitMember(&walk, {}, place);
        }
    }
    this->end('}', walk.empty);
}

void Writer::walk(const JsonType& type, const void* value, JsonType::Visit visit) {
    const bool object = type.shape == JsonShape::dictionary;
    begin(object ? '{' : '[');
    Walk walk{*this, type.item};
    type.each(value, visit, &walk);
    end(object ? '}' : ']', walk.empty);
}

void Writer::visitMember(void* context, std::string_view, const void* item) {
    Walk& walk = *static_cast<Walk*>(context);
    visitDictionaryItem(context, walk.name, item);
}

void Writer::visitListItem(void* context, std::string_view, const void* item) {
    Walk& walk = *static_cast<Walk*>(context);
    walk.writer.separate(walk.empty);
    walk.writer.value(*walk.item, item);
}

void Writer::visitDictionaryItem(void* context, std::string_view key, const void* item) {
    Walk& walk = *static_cast<Walk*>(context);
    walk.writer.separate(walk.empty);
    walk.writer.name(key);
    walk.writer.value(*walk.item, item);
}

void Writer::visitPair(void* context, std::string_view key, const void* item) {
    Walk& walk = *static_cast<Walk*>(context);
    walk.writer.separate(walk.empty);
    walk.writer.text(key);
    walk.writer.separate(walk.empty);
    walk.writer.value(*walk.item, item);
}

void Writer::begin(char bracket) {
    out_ += bracket;
    ++level_;
}

void Writer::end(char bracket, bool empty) {
    --level_;
    if (style_.pretty && !empty) {
        out_ += '\n';
        out_.append(level_ * kIndent, ' ');
    }
    out_ += bracket;
}

void Writer::separate(bool& empty) {
    if (!empty) {
        out_ += ',';
    }
    empty = false;
    if (style_.pretty) {
        out_ += '\n';
        out_.append(level_ * kIndent, ' ');
    }
}

void Writer::name(std::string_view name) {
    lastName_ = name;
    text(name);
    out_ += style_.pretty ? ": " : ":";
}

void Writer::text(std::string_view text) {
    std::string repaired;
    if (firstInvalidUtf8(text)) {
        repaired = repairUtf8(text);
        text = repaired;
    }
    out_ += '"';
    for (auto next = std::ranges::find_if(text, needsEscape); next != text.end();
         next = std::ranges::find_if(text, needsEscape)) {
        out_.append(text.begin(), next);
        escaped(*next);
        text.remove_prefix(static_cast<std::size_t>(next - text.begin()) + 1);
    }
    out_ += text;
    out_ += '"';
}

void Writer::escaped(char c) {
    constexpr std::string_view plain = "\"\\\b\f\n\r\t";
    constexpr std::string_view letters = "\"\\bfnrt";
    constexpr std::string_view hexDigits = "0123456789abcdef";
    out_ += '\\';
    if (const std::size_t known = plain.find(c); known != std::string_view::npos) {
        out_ += letters[known];
    } else {
        out_ += c < 0x10 ? "u000" : "u001";
        out_ += hexDigits[static_cast<std::size_t>(c & 0x0F)];
    }
}

void Writer::number(double number) {
    if (!std::isfinite(number)) {
        throw ScopeError("JSON 成员 " + std::string(lastName_) + " 不是有限数值，无法写出",
                         ResultCode::invalid);
    }
    std::array<char, kShortestMaxLength> digits;
    out_.append(digits.data(), writeShortest(number, digits.data()));
}

}  // namespace

std::string encodeJson(const JsonType& type, const void* value, const JsonStyle& style) {
    Writer writer(style);
    writer.value(type, value);
    return writer.take();
}

}  // namespace ferovane
