// The JSON library is used here only, and of it only the parser: it reports to the decoder what it
// meets and builds nothing.
#include "core/model/json_codec.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>

#include "core/model/json_decoder.h"
#include "core/model/utf8.h"

namespace ferovane {
namespace {

constexpr int kNumberOverflow = 406;  // the library's number for a number too large for a double

// The names and signatures are the library's.
class ParserEvents {
public:
    ParserEvents(JsonDecoder& decoder, std::string_view text) : decoder_(decoder), text_(text) {}

    bool null() {
        decoder_.scalar(nullptr);
        return true;
    }
    bool boolean(bool value) {
        decoder_.scalar(value);
        return true;
    }
    bool number_integer(nlohmann::json::number_integer_t value) {
        decoder_.scalar(std::int64_t{value});
        return true;
    }
    bool number_unsigned(nlohmann::json::number_unsigned_t value) {
        if (std::in_range<std::int64_t>(value)) {
            decoder_.scalar(static_cast<std::int64_t>(value));
        } else {
            decoder_.scalar(static_cast<double>(value));
        }
        return true;
    }
    bool number_float(double value, const std::string&) {
        decoder_.scalar(value);
        return true;
    }
    bool string(const std::string& value) {
        decoder_.scalar(std::string_view(value));
        return true;
    }
    bool binary(nlohmann::json::binary_t&) { return false; }  // not part of JSON texts
    bool start_object(std::size_t) {
        decoder_.startObject();
        return true;
    }
    bool key(const std::string& name) {
        decoder_.key(name);
        return true;
    }
    bool end_object() {
        decoder_.endObject();
        return true;
    }
    bool start_array(std::size_t) {
        decoder_.startArray();
        return true;
    }
    bool end_array() {
        decoder_.endArray();
        return true;
    }
    // The error's own text repeats the input, however long that is, so it goes no further.
    [[noreturn]] bool parse_error(std::size_t byte, const std::string&,
                                  const nlohmann::json::exception& error) {
        if (error.id == kNumberOverflow) {
            decoder_.failOutOfRange();
        }
        if (const auto invalid = firstInvalidUtf8(text_); invalid && *invalid < byte) {
            decoder_.failInvalidUtf8(*invalid + 1);
        }
        decoder_.failMalformed(byte);
    }

private:
    JsonDecoder& decoder_;
    std::string_view text_;
};

}  // namespace

void decodeJson(std::string_view text, const JsonType& type, void* value, JsonDates dates) {
    JsonDecoder decoder(type, value, dates);
    // The parser would pass over a byte order mark, and take a zero byte for the end of the text.
    if (text.starts_with("\xEF\xBB\xBF")) {
        decoder.failMalformed(1);
    }
    if (const std::size_t zero = text.find('\0'); zero != std::string_view::npos) {
        decoder.failMalformed(zero + 1);
    }
    ParserEvents events(decoder, text);
    nlohmann::json::sax_parse(text.data(), text.data() + text.size(), &events);
}

}  // namespace ferovane
