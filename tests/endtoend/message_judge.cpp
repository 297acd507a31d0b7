// What the library says of messages, for tests that compare it with what others say: reads lines of
// a schema's name, a space and a text; answers each with the refusal, or an empty line.
#include <iostream>

#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "core/model/snapshot.h"

namespace {

using namespace ferovane;

std::string refusal(std::string_view name, std::string_view text) {
    try {
        if (name == "ControlRequest") {
            decodeJson<ControlRequest>(text).validate();
        } else if (name == "ControlReply") {
            decodeJson<ControlReply>(text);
        } else if (name == "Snapshot") {
            decodeJson<Snapshot>(text, JsonDates::iso8601);
        } else {
            decodeJson<std::map<std::string, double>>(text);
        }
        return "";
    } catch (const ScopeError& error) {
        return error.message();
    }
}

}  // namespace

int main() {
    for (std::string line; std::getline(std::cin, line);) {
        const std::size_t space = line.find(' ');
        std::cout << refusal(line.substr(0, space), line.substr(space + 1)) << std::endl;
    }
}
