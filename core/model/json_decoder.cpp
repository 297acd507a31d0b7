#include "core/model/json_decoder.h"

#include <algorithm>
#include <bit>
#include <utility>
#include <variant>

#include "core/model/scope_error.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

// Names of the input appear in messages, which have to stay short enough to travel and to read.
constexpr std::size_t kMaxPathBytes = 120;

constexpr bool hasShape(const JsonType* type, JsonShape shape) {
    return type != nullptr && type->shape == shape;
}

// A name as it may be shown on a terminal.
std::string printable(std::string_view name) {
    std::string shown(utf8Prefix(name, kMaxPathBytes));
    std::ranges::replace_if(
        shown, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    return shown;
}

std::string_view describeProblem(JsonProblem problem) {
    switch (problem) {
        case JsonProblem::outOfRange:
            return "超出数值范围";
        case JsonProblem::unknownValue:
            return "的取值无法识别";
        case JsonProblem::invalidDate:
            return "不是有效的日期";
        case JsonProblem::invalidUuid:
            return "不是有效的 UUID";
        case JsonProblem::duplicate:
            return "重复出现";
        case JsonProblem::none:
        case JsonProblem::wrongType:
            break;
    }
    return "类型错误";
}

}  // namespace

JsonDecoder::JsonDecoder(const JsonType& type, void* value, JsonDates dates)
    : root_{&type, value}, dates_(dates) {}

void JsonDecoder::scalar(const JsonScalar& scalar) {
    if (expectsKey()) {
        return pairKey(std::get_if<std::string_view>(&scalar));
    }
    const Place met = nextPlace();
    const bool absent =
        hasShape(met.type, JsonShape::optional) && std::holds_alternative<std::nullptr_t>(scalar);
    if (met.type == nullptr || absent) {
        return;
    }
    const Place place = engaged(met);
    const JsonProblem problem = place.type->shape == JsonShape::scalar
                                    ? place.type->read(place.value, scalar, dates_)
                                    : JsonProblem::wrongType;
    if (problem != JsonProblem::none) {
        fail(problem, place);
    }
}

void JsonDecoder::startObject() {
    open(true);
}

void JsonDecoder::startArray() {
    open(false);
}

void JsonDecoder::key(std::string_view name) {
    Frame& frame = top();
    const JsonType* const type = frame.place.type;
    if (type == nullptr) {
        keepName(name);
    } else if (type->shape == JsonShape::dictionary) {
        dropNames(frame.firstName);
        keepName(name);
        addKey(frame, name);
    } else {
        meetMember(frame, name);
    }
}

void JsonDecoder::endObject() {
    refuseDuplicateNames(top());
    refuseMissingMembers(top());
    dropNames(top().firstName);
    --depth_;
}

void JsonDecoder::endArray() {
    dropNames(top().firstName);
    --depth_;
    if (frames_[depth_].pending != nullptr) {
        failSaying("的最后一个键没有值");
    }
}

// The place of the value that comes next, counted as met.
JsonDecoder::Place JsonDecoder::nextPlace() {
    if (depth_ == 0) {
        return root_;
    }
    Frame& frame = top();
    ++frame.count;
    const JsonType* const type = frame.place.type;
    if (type == nullptr) {
        return {};
    }
    if (type->shape == JsonShape::record) {
        return frame.member == nullptr
                   ? Place{}
                   : Place{frame.member->type, frame.member->place(frame.place.value)};
    }
    if (type->shape == JsonShape::list) {
        JsonProblem never = JsonProblem::none;
        return {type->item, type->add(frame.place.value, {}, never)};
    }
    return {type->item, std::exchange(frame.pending, nullptr)};
}

void JsonDecoder::open(bool object) {
    if (expectsKey()) {
        pairKey(nullptr);
    }
    const Place place = engaged(nextPlace());
    if (place.type != nullptr) {
        const JsonShape shape = place.type->shape;
        const bool fits = object ? shape == JsonShape::record || shape == JsonShape::dictionary
                                 : shape == JsonShape::list || shape == JsonShape::alternating;
        if (!fits) {
            fail(JsonProblem::wrongType, place);
        }
    }
    if (depth_ == frames_.size()) {
        failSaying("嵌套超过 " + std::to_string(kMaxJsonDepth) + " 层");
    }
    frames_[depth_++] = {.place = place, .object = object, .firstName = names_.size()};
}

// Whether an array that alternates keys and values comes to a key.
bool JsonDecoder::expectsKey() const {
    return depth_ > 0 && hasShape(frames_[depth_ - 1].place.type, JsonShape::alternating) &&
           frames_[depth_ - 1].pending == nullptr;
}

// Meets such a key; null when what stands there is no text.
void JsonDecoder::pairKey(const std::string_view* key) {
    Frame& frame = top();
    ++frame.count;
    if (key == nullptr) {
        failSaying("应为文本");
    }
    addKey(frame, *key);
    dropNames(frame.firstName);
    keepName(*key);
}

// The place inside an optional, which now holds something; any other place as it is.
JsonDecoder::Place JsonDecoder::engaged(const Place& place) {
    if (!hasShape(place.type, JsonShape::optional)) {
        return place;
    }
    JsonProblem never = JsonProblem::none;
    return {place.type->item, place.type->add(place.value, {}, never)};
}

// Makes the place of a map's next value.
void JsonDecoder::addKey(Frame& frame, std::string_view key) {
    JsonProblem problem = JsonProblem::none;
    frame.pending = frame.place.type->add(frame.place.value, key, problem);
    if (frame.pending == nullptr) {
        fail(problem, frame.place);
    }
}

// Usually a record's members come in the order in which they are declared.
void JsonDecoder::meetMember(Frame& frame, std::string_view name) {
    const JsonType& type = *frame.place.type;
    const JsonMember* const end = type.members + type.memberCount;
    const JsonMember* found = frame.member == nullptr ? type.members : frame.member + 1;
    if (found == end || found->name != name) {
        found = std::find_if(type.members, end, [&](const auto& m) { return m.name == name; });
    }
    if (found == end) {
        frame.member = nullptr;
        keepName(name);
        return;
    }
    frame.member = found;
    const std::uint64_t bit = std::uint64_t{1} << (found - type.members);
    if ((frame.seen & bit) != 0) {
        fail(JsonProblem::duplicate, frame.place);
    }
    frame.seen |= bit;
}

void JsonDecoder::keepName(std::string_view name) {
    names_.push_back({text_.size(), name.size()});
    text_ += name;
}

void JsonDecoder::dropNames(std::size_t first) {
    if (names_.size() > first) {
        text_.resize(names_[first].begin);
        names_.resize(first);
    }
}

void JsonDecoder::refuseMissingMembers(Frame& frame) {
    const JsonType* const type = frame.place.type;
    const std::uint64_t missing = type == nullptr ? 0 : type->required & ~frame.seen;
    if (missing != 0) {
        frame.member = type->members + std::countr_zero(missing);
        failSaying("缺失");
    }
}

// Names that nobody knows are compared at their object's end: sorting keeps a line full of them
// from costing the square of their number.
void JsonDecoder::refuseDuplicateNames(Frame& frame) {
    const auto begin = names_.begin() + static_cast<std::ptrdiff_t>(frame.firstName);
    if (names_.end() - begin < 2) {
        return;
    }
    const std::size_t textBegin = begin->begin;
    std::sort(begin, names_.end(), [&](const Name& a, const Name& b) { return text(a) < text(b); });
    const auto twice = std::adjacent_find(
        begin, names_.end(), [&](const Name& a, const Name& b) { return text(a) == text(b); });
    if (twice != names_.end()) {
        frame.member = nullptr;
        names_.back() = *twice;
        fail(JsonProblem::duplicate, frame.place);
    }
    begin->begin = textBegin;  // what dropping all of them goes by
}

std::string_view JsonDecoder::text(const Name& name) const {
    return std::string_view(text_).substr(name.begin, name.length);
}

// The name last met in an object that is still open; empty before the first.
std::string_view JsonDecoder::currentName(std::size_t level) const {
    if (frames_[level].member != nullptr) {
        return frames_[level].member->name;
    }
    const std::size_t end = level + 1 < depth_ ? frames_[level + 1].firstName : names_.size();
    return end > frames_[level].firstName ? text(names_[end - 1]) : std::string_view();
}

std::string JsonDecoder::path() const {
    std::string path;
    for (std::size_t level = 0; level < depth_ && path.size() < kMaxPathBytes; ++level) {
        const Frame& frame = frames_[level];
        const bool keyed = frame.object || (hasShape(frame.place.type, JsonShape::alternating) &&
                                            frame.count % 2 == 0);
        if (!keyed) {
            path.append("[").append(std::to_string(std::max<std::size_t>(frame.count, 1) - 1));
            path += ']';
        } else if (const std::string_view name = currentName(level); !name.empty()) {
            path.append(path.empty() ? "" : ".").append(printable(name));
        }
    }
    if (path.size() > kMaxPathBytes) {
        path = std::string(utf8Prefix(path, kMaxPathBytes)) + "…";
    }
    return path;
}

void JsonDecoder::fail(JsonProblem problem, const Place& place) const {
    if (problem == JsonProblem::wrongType) {
        failSaying("应为" + std::string(place.type->noun));
    }
    failSaying(describeProblem(problem));
}

void JsonDecoder::failSaying(std::string_view what) const {
    const std::string path = this->path();
    throw ScopeError((path.empty() ? "JSON 内容" : "JSON 成员 " + path + " ") + std::string(what),
                     ResultCode::invalid);
}

void JsonDecoder::failMalformed(std::size_t byte) const {
    failSaying((depth_ > 0 ? "附近格式错误（第 " : "格式错误（第 ") + std::to_string(byte) +
               " 字节）");
}

void JsonDecoder::failInvalidUtf8(std::size_t byte) const {
    failSaying((depth_ > 0 ? "附近不是有效的 UTF-8 文本（第 " : "不是有效的 UTF-8 文本（第 ") +
               std::to_string(byte) + " 字节）");
}

void JsonDecoder::failOutOfRange() {
    static_cast<void>(nextPlace());  // the parser refused the number before it was met here
    failSaying(describeProblem(JsonProblem::outOfRange));
}

}  // namespace ferovane
