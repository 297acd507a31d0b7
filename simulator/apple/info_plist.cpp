#include "simulator/apple/info_plist.h"

#include <array>
#include <utility>

namespace simulator {
namespace {

// One element's tag and the text between it and the next tag.
struct Tag {
    std::string_view name;  // "key", "/key", "true/"
    std::string_view text;
};

// Takes the next tag off the front; comments, declarations and the document type are skipped.
std::optional<Tag> nextTag(std::string_view& rest) {
    constexpr std::string_view kCommentStart = "<!--";
    constexpr std::string_view kCommentEnd = "-->";
    for (;;) {
        const std::size_t start = rest.find('<');
        if (start == std::string_view::npos) {
            return std::nullopt;
        }
        rest.remove_prefix(start);
        const bool comment = rest.starts_with(kCommentStart);
        const std::string_view closing = comment ? kCommentEnd : ">";
        const std::size_t end = rest.find(closing);
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view inside = rest.substr(1, end - 1);
        rest.remove_prefix(end + closing.size());
        if (!comment && !inside.starts_with('?') && !inside.starts_with('!')) {
            return Tag{inside.substr(0, inside.find(' ')), rest.substr(0, rest.find('<'))};
        }
    }
}

std::string withoutEntities(std::string_view text) {
    constexpr std::array<std::pair<std::string_view, char>, 5> kEntities{
        {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}}};
    std::string plain;
    while (!text.empty()) {
        char character = text.front();
        std::size_t taken = 1;
        for (const auto& [entity, meaning] : kEntities) {
            if (text.starts_with(entity)) {
                character = meaning;
                taken = entity.size();
            }
        }
        plain.push_back(character);
        text.remove_prefix(taken);
    }
    return plain;
}

}  // namespace

std::optional<std::string> propertyListString(std::string_view xml, std::string_view key) {
    int depth = 0;
    bool keySeen = false;
    while (const std::optional<Tag> tag = nextTag(xml)) {
        if (keySeen && !tag->name.starts_with('/')) {
            return tag->name == "string" ? std::optional(withoutEntities(tag->text)) : std::nullopt;
        }
        if (tag->name == "dict" || tag->name == "array") {
            ++depth;
        } else if (tag->name == "/dict" || tag->name == "/array") {
            --depth;
        } else if (tag->name == "key" && depth == 1) {
            keySeen = withoutEntities(tag->text) == key;
        }
    }
    return std::nullopt;
}

}  // namespace simulator
