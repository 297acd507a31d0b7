#include "simulator/machine/key_dump.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <string>
#include <unordered_map>

#include "simulator/machine/four_characters.h"
#include "simulator/machine/happenings.h"

namespace simulator {
namespace {

constexpr std::string_view kHeader = "key,type,size,attributes,bytes,result";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kUnreadableBytes = "NOT READABLE";
constexpr std::size_t kMaxKeys = 50000;  // real controllers have fewer than 3000
constexpr std::uint32_t kMaxKeySize = 4096;
constexpr std::size_t kNameSize = 4;

[[noreturn]] void fail(std::size_t line, std::string_view field, const std::string& problem) {
    throw std::runtime_error("key dump, line " + std::to_string(line) + ", field \"" +
                             std::string(field) + "\": " + problem);
}

// The text shown in a message: short, and free of control characters.
std::string shown(std::string_view text) {
    constexpr std::size_t kMost = 40;
    std::string out = "\"";
    for (const char character : text.substr(0, kMost)) {
        out += character >= ' ' && character < '\x7F' ? character : '?';
    }
    return out + (text.size() > kMost ? "…\"" : "\"");
}

// Up to four characters off the front.
std::uint32_t takeName(std::string_view& rest, std::size_t line, std::string_view field) {
    std::string name;
    while (name.size() < kNameSize && !rest.empty()) {
        if (rest.substr(0, 2) == "\\0") {
            name += '\0';
            rest.remove_prefix(2);
        } else {
            name += rest.front();
            rest.remove_prefix(1);
        }
    }
    if (name.empty()) {
        fail(line, field, "missing");
    }
    return packed(name);
}

// Where the first four characters end.
std::size_t firstFourEnd(std::string_view text) {
    std::size_t end = 0;
    for (std::size_t i = 0; i < kNameSize && end < text.size(); ++i) {
        end += text.substr(end, 2) == "\\0" ? 2U : 1U;
    }
    return end;
}

using Fields = std::array<std::string_view, 6>;

// Keys and types may hold any character, a comma included, so their width decides where they end;
// the other four fields hold no comma and are taken from the right.
void split(std::string_view text, std::size_t line, Fields& fields) {
    for (std::size_t i = fields.size() - 1; i > 1; --i) {
        const std::size_t comma = text.rfind(',');
        if (comma == std::string_view::npos) {
            fail(line, "key", "a line has six fields: " + std::string(kHeader));
        }
        fields[i] = text.substr(comma + 1);
        text = text.substr(0, comma);
    }
    std::size_t comma = firstFourEnd(text);
    if (comma >= text.size() || text[comma] != ',') {
        comma = text.find(',');
    }
    if (comma == std::string_view::npos) {
        fail(line, "key", "a line has six fields: " + std::string(kHeader));
    }
    fields[0] = text.substr(0, comma);
    fields[1] = text.substr(comma + 1);
}

std::uint32_t name(std::string_view text, std::size_t line, std::string_view field) {
    std::string_view rest = text;
    const std::uint32_t code = takeName(rest, line, field);
    if (!rest.empty()) {
        fail(line, field, shown(text) + " has more than four characters");
    }
    return code;
}

template <typename Number>
Number number(std::string_view text, int base, Number most, std::size_t line,
              std::string_view field) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || value > most) {
        fail(line, field,
             shown(text) + " is not a " + (base == 10 ? "decimal" : "hexadecimal") +
                 " number up to " + std::to_string(most));
    }
    return static_cast<Number>(value);
}

int nibble(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::vector<std::uint8_t> bytes(std::string_view text, std::size_t line) {
    std::vector<std::uint8_t> out;
    if (text.size() % 2 != 0) {
        fail(line, "bytes", shown(text) + " has half a byte");
    }
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = nibble(text[i]);
        const int low = nibble(text[i + 1]);
        if (high < 0 || low < 0) {
            fail(line, "bytes", shown(text) + " is not hexadecimal");
        }
        out.push_back(static_cast<std::uint8_t>(high << 4 | low));
    }
    return out;
}

KeyDefinition definition(std::string_view text, std::size_t line) {
    Fields fields;
    split(text, line, fields);
    KeyDefinition key;
    key.code = name(fields[0], line, "key");
    key.type = name(fields[1], line, "type");
    key.size = number<std::uint32_t>(fields[2], 10, kMaxKeySize, line, "size");
    key.attributes = fields[3].empty()
                         ? kAttributeRead
                         : number<std::uint8_t>(fields[3], 16, 0xFF, line, "attributes");
    key.readResult = number<std::uint8_t>(fields[5], 16, 0xFF, line, "result");
    const bool readable = !fields[4].empty() && fields[4] != kUnreadableBytes;
    if (readable) {
        key.bytes = bytes(fields[4], line);
        if (key.bytes.size() != key.size) {
            fail(line, "bytes",
                 std::to_string(key.bytes.size()) + " bytes, but the size is " +
                     std::to_string(key.size));
        }
    } else if (key.readResult == 0 && key.size != 0) {
        key.readResult = static_cast<std::uint8_t>(kNotReadable);
    }
    return key;
}

std::string_view takeLine(std::string_view& text) {
    const std::size_t feed = text.find('\n');
    std::string_view line = text.substr(0, feed);
    text = feed == std::string_view::npos ? std::string_view() : text.substr(feed + 1);
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

}  // namespace

std::vector<KeyDefinition> parseKeyDump(std::string_view csv) {
    if (csv.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
        csv.remove_prefix(kByteOrderMark.size());
    }
    if (const std::string_view header = takeLine(csv); header != kHeader) {
        throw std::runtime_error("key dump, line 1: the header is " + shown(header) + ", not \"" +
                                 std::string(kHeader) + "\"");
    }
    std::vector<KeyDefinition> keys;
    std::unordered_map<std::uint32_t, std::size_t> lines;
    for (std::size_t line = 2; !csv.empty(); ++line) {
        const std::string_view text = takeLine(csv);
        if (text.empty()) {
            continue;
        }
        keys.push_back(definition(text, line));
        const auto [first, isNew] = lines.emplace(keys.back().code, line);
        if (!isNew) {
            fail(line, "key",
                 shown(unpacked(keys.back().code)) + " stands already in line " +
                     std::to_string(first->second));
        }
        if (keys.size() > kMaxKeys) {
            fail(line, "key", "more than " + std::to_string(kMaxKeys) + " keys");
        }
    }
    if (keys.empty()) {
        throw std::runtime_error("key dump: no keys");
    }
    return keys;
}

}  // namespace simulator
