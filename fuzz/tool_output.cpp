// What a tool printed. The first two bytes are the limit, the rest is the output.
#include "core/power/tool_output.h"

#include <unistd.h>

#include <cstdio>

#include "core/model/utf8.h"
#include "fuzz/property.h"

using namespace ferovane;
using fuzzing::require;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    const std::size_t limit = input.take<std::uint16_t>() % 512;
    const std::string_view text = input.rest();
    const std::string whole = repairUtf8(text);
    require(!firstInvalidUtf8(whole) && repairUtf8(whole) == whole, "repaired text is well-formed");
    require(firstInvalidUtf8(text).has_value() == (whole != text), "only ill-formed text changes");

    // One file for all inputs, as the making of it would cost more than the reading.
    static std::FILE* const file = std::tmpfile();
    const int descriptor = fileno(file);
    require(ftruncate(descriptor, 0) == 0 &&
                pwrite(descriptor, text.data(), text.size(), 0) == ssize_t(text.size()),
            "the output can be stored");
    const std::string output = readToolOutput(descriptor, limit);
    constexpr std::size_t kLongestCut = 3;
    require(whole.starts_with(output) && output.size() <= limit && !firstInvalidUtf8(output),
            "output is a beginning of what was printed, within the limit, of whole characters");
    require(output.size() == whole.size() || output.size() + kLongestCut >= limit,
            "output is cut by less than a character");
    return 0;
}
