// Writes this Mac's controller as a table, one key a line, for a simulated Mac:
//
//     key-dump > my-mac.csv && simulated-mac create DIR --keys my-mac.csv
//
// Reads only; needs no privileges. Keys that may tell whose Mac this is are left out: text, and any
// value of more than four bytes that is neither a number nor a fan's description, such as serial
// numbers, addresses and digests. A shorter number that only one machine has would not be noticed.
//
//     key,type,size,attributes,bytes,result
//     F0Ac,fpe2,2,90,21B4,00
//
// What the controller does not let anybody read has no bytes and its result; keys of more than 32
// bytes, whose values take another call, have the result 85.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>

#include "shim/fv.h"

namespace {

constexpr const char* kKeyCount = "#KEY";
constexpr std::uint32_t kMostKeys = 50000;  // real controllers have fewer than 3000
constexpr std::uint32_t kMostPlainBytes = 4;
constexpr int kNotReadable = 0x85;
constexpr int kHighestResult = 0xFF;
constexpr std::string_view kText = "ch8*";
// Numbers, and the name and place of a fan.
constexpr std::array<std::string_view, 2> kLongTypes{"ioft", "{fds"};

std::string textOf(std::uint32_t type) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += static_cast<char>(type >> shift & 0xFF);
    }
    return text;
}

bool isPersonal(const FVKeyInformation& key) {
    const std::string type = textOf(key.data_type);
    return type == kText ||
           (key.data_size > kMostPlainBytes &&
            std::find(kLongTypes.begin(), kLongTypes.end(), type) == kLongTypes.end());
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char character : text) {
        out += character == '\0' ? std::string("\\0") : std::string(1, character);
    }
    return out;
}

// False when the controller does not answer for the key.
bool printKey(std::uint32_t connection, const char* key) {
    FVKeyInformation information{};
    if (fv_smc_describe(connection, key, &information) != 0) {
        return false;
    }
    FVValue value{};
    int result = kNotReadable;
    if (information.data_size <= FV_SMC_DATA_SIZE) {
        result = fv_smc_read(connection, key, &value);
        if (result < 0 || result > kHighestResult) {
            return false;
        }
        if (result == 0 && isPersonal(information)) {
            return true;
        }
    }
    std::printf("%s,%s,%u,%02X,", key, escaped(textOf(information.data_type)).c_str(),
                static_cast<unsigned>(information.data_size),
                static_cast<unsigned>(information.attributes));
    for (std::uint32_t i = 0; result == 0 && i < value.data_size; ++i) {
        std::printf("%02X", static_cast<unsigned>(value.data[i]));
    }
    std::printf(",%02X\n", static_cast<unsigned>(result));
    return true;
}

// The number of keys that could not be written, or -1 when they cannot be listed.
int printKeys(std::uint32_t connection) {
    FVValue value{};
    const double count =
        fv_smc_read(connection, kKeyCount, &value) == 0 ? fv_decode(&value) : std::nan("");
    if (!(count >= 1 && count <= kMostKeys)) {
        return -1;
    }
    std::puts("key,type,size,attributes,bytes,result");
    int unwritten = 0;
    for (std::uint32_t index = 0; index < static_cast<std::uint32_t>(count); ++index) {
        std::array<char, FV_SMC_KEY_TEXT_SIZE> key{};
        if (fv_smc_key_at_index(connection, index, key.data()) != 0 ||
            std::any_of(key.begin(), key.end() - 1, [](char c) { return c < ' ' || c > '~'; }) ||
            !printKey(connection, key.data())) {
            ++unwritten;
        }
    }
    return unwritten;
}

}  // namespace

int main() {
    const std::uint32_t connection = fv_smc_open();
    const int unwritten = printKeys(connection);
    fv_smc_close(connection);
    if (unwritten < 0) {
        std::fputs("key-dump: this machine's controller does not list its keys\n", stderr);
        return 1;
    }
    if (unwritten > 0) {
        std::fprintf(stderr, "key-dump: %d keys did not answer and are not in the table\n",
                     unwritten);
    }
    if (std::fflush(stdout) != 0) {
        std::perror("key-dump");
        return 1;
    }
    return 0;
}
