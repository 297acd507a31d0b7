// What a tool printed. The first two bytes are the limit, the rest is the output.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "core/model/utf8.h"
#include "core/power/tool_output.h"
#include "fuzz/input.h"
#include "fuzz/property.h"
#include "fuzz/reference_utf8.h"

namespace {

using namespace ferovane;
using fuzzing::require;

// One file for all inputs, as the making of it would cost more than the reading.
int fileHolding(std::string_view text) {
    static std::FILE* const file = std::tmpfile();
    require(file != nullptr, "a temporary file can be made");
    const int descriptor = fileno(file);
    const auto size = static_cast<ssize_t>(text.size());
    require(
        ftruncate(descriptor, 0) == 0 && pwrite(descriptor, text.data(), text.size(), 0) == size,
        "the output can be stored");
    return descriptor;
}

void checkRepair(std::string_view text, const std::string& repaired) {
    constexpr std::size_t kReferenceShare = 4;
    if (fuzzing::sampled(text, kReferenceShare)) {
        require(repaired == fuzzing::reference::repairedUtf8(text),
                "repair replaces each broken sequence by one U+FFFD");
    }
    require(!firstInvalidUtf8(repaired), "repaired text is well-formed");
    require(repairUtf8(repaired) == repaired, "repairing twice changes nothing more");
    require(firstInvalidUtf8(text).has_value() == (repaired != text),
            "only ill-formed text is changed");
}

void checkPrefix(std::string_view whole, std::string_view prefix, std::size_t limit) {
    constexpr std::size_t kLongestCut = 3;
    require(whole.starts_with(prefix) && prefix.size() <= limit, "a prefix within the limit");
    require(!firstInvalidUtf8(prefix), "a prefix ends between characters");
    require(prefix.size() == whole.size() || prefix.size() + kLongestCut >= limit,
            "a prefix is cut by less than a character");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(fuzzing::textOf(data, size));
    const std::size_t limit = input.take<std::uint16_t>() % 512;
    const std::string_view text = input.rest();

    const std::string repaired = repairUtf8(text);
    checkRepair(text, repaired);
    checkPrefix(repaired, utf8Prefix(repaired, limit), limit);
    const std::string output = readToolOutput(fileHolding(text), limit);
    require(output == utf8Prefix(repaired, limit), "output is the beginning of what was printed");
    return 0;
}
