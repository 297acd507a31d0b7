// Puts the parts of a JSON text, as a parser meets them, straight into a record.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/model/json_codec.h"
#include "core/model/json_type.h"

namespace ferovane {

// Fed in the order of the text by a parser that keeps JSON's grammar. Throws ScopeError, naming the
// member, as soon as something does not suit the value that it fills.
class JsonDecoder {
public:
    JsonDecoder(const JsonType& type, void* value, JsonDates dates);

    void scalar(const JsonScalar& scalar);
    void startObject();
    void key(std::string_view name);
    void endObject();
    void startArray();
    void endArray();

    // The failures that only the parser sees, at what it is reading; bytes count from 1.
    [[noreturn]] void failMalformed(std::size_t byte) const;
    [[noreturn]] void failInvalidUtf8(std::size_t byte) const;
    [[noreturn]] void failOutOfRange();

private:
    // Where the next value goes; without a type it is only checked.
    struct Place {
        const JsonType* type = nullptr;
        void* value = nullptr;
    };

    // An object or array that has begun and not ended.
    struct Frame {
        Place place;
        bool object = false;
        const JsonMember* member = nullptr;  // records: the last name met, null if nobody knows it
        std::uint64_t seen = 0;              // records: a bit for each known member met
        std::size_t count = 0;               // items met
        std::size_t firstName = 0;           // where the names kept for this object begin
        void* pending = nullptr;             // maps: where the value of the last key goes
    };

    // Names in `text_` that have to be compared, or told to the user, later.
    struct Name {
        std::size_t begin, length;
    };

    Place nextPlace();
    void open(bool object);
    bool expectsKey() const;
    void pairKey(const std::string_view* key);
    static Place engaged(const Place& place);
    Frame& top() { return frames_[depth_ - 1]; }
    void addKey(Frame& frame, std::string_view key);
    void meetMember(Frame& frame, std::string_view name);
    void keepName(std::string_view name);
    void dropNames(std::size_t first);
    void refuseMissingMembers(Frame& frame);
    void refuseDuplicateNames(Frame& frame);
    std::string_view text(const Name& name) const;
    std::string_view currentName(std::size_t level) const;
    std::string path() const;
    [[noreturn]] void fail(JsonProblem problem, const Place& place) const;
    [[noreturn]] void failSaying(std::string_view what) const;

    Place root_;
    JsonDates dates_;
    std::array<Frame, kMaxJsonDepth> frames_{};
    std::size_t depth_ = 0;
    std::string text_;  // the kept names, one after the other
    std::vector<Name> names_;
};

}  // namespace ferovane
