// A table of controller keys that somebody made of their machine.
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/property.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_dump.h"

namespace {

using namespace ferovane;
using fuzzing::require;
using simulator::KeyDefinition;

std::string nameText(std::uint32_t code) {
    std::string text;
    for (const char c : simulator::unpacked(code)) {
        text += c == '\0' ? std::string("\\0") : std::string(1, c);
    }
    return text;
}

std::string hexText(const std::vector<std::uint8_t>& bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string dumpOf(const std::vector<KeyDefinition>& keys) {
    std::string text = "key,type,size,attributes,bytes,result\n";
    for (const KeyDefinition& key : keys) {
        text += nameText(key.code) + ',' + nameText(key.type) + ',' + std::to_string(key.size) +
                ',' + hexText({key.attributes}) + ',' + hexText(key.bytes) + ',' +
                hexText({key.readResult}) + '\n';
    }
    return text;
}

bool same(const KeyDefinition& a, const KeyDefinition& b) {
    return a.code == b.code && a.type == b.type && a.size == b.size &&
           a.attributes == b.attributes && a.readResult == b.readResult && a.bytes == b.bytes;
}

void checkKeys(const std::vector<KeyDefinition>& keys) {
    constexpr std::uint32_t kMostBytes = 4096;
    std::set<std::uint32_t> codes;
    for (const KeyDefinition& key : keys) {
        require(codes.insert(key.code).second, "no key stands twice");
        require(key.size <= kMostBytes, "every size is in its range");
        require(key.bytes.empty() || key.bytes.size() == key.size, "a value has its size");
        require(!key.bytes.empty() || key.size == 0 || key.readResult != 0,
                "a key without a value answers with a refusal");
    }
    require(!keys.empty(), "a dump has keys");
}

void checkRefusal(const std::string& text) {
    constexpr std::size_t kLongestRefusal = 250;
    require(text.starts_with("key dump"), "a refusal names the dump");
    require(text.size() <= kLongestRefusal, "a refusal does not repeat its input");
    for (const char c : text) {
        require(static_cast<unsigned char>(c) >= ' ' && c != '\x7F',
                "a refusal has no control characters");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<KeyDefinition> keys;
    try {
        keys = simulator::parseKeyDump(fuzzing::textOf(data, size));
    } catch (const std::runtime_error& error) {
        checkRefusal(error.what());
        return 0;
    }
    checkKeys(keys);
    const auto again = simulator::parseKeyDump(dumpOf(keys));
    require(std::equal(keys.begin(), keys.end(), again.begin(), again.end(), same),
            "an accepted dump survives being written and read");
    return 0;
}
