#include <IOKit/IOKitLib.h>
#include <mach/mach.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "shim/fv.h"
#include "shim/matched_service.h"

namespace {

// What goes in and comes out of every call to the controller's driver.
struct SMCBlock {
    std::uint32_t key;
    struct {
        std::uint8_t major, minor, build, reserved;
        std::uint16_t release;
    } firmware;
    std::uint16_t firmwarePadding;
    struct {
        std::uint16_t version, length;
        std::uint32_t cpu, gpu, memory;
    } powerLimit;
    std::uint32_t dataSize;
    std::uint32_t dataType;
    std::uint8_t attributes;
    std::uint8_t attributesPadding[3];
    std::uint8_t result;
    std::uint8_t status;
    std::uint8_t command;
    std::uint8_t commandPadding;
    std::uint32_t index;
    std::uint8_t data[FV_SMC_DATA_SIZE];
};

static_assert(sizeof(SMCBlock) == 80 && alignof(SMCBlock) == 4);
static_assert(std::is_trivially_copyable_v<SMCBlock>);
static_assert(offsetof(SMCBlock, key) == 0);
static_assert(offsetof(SMCBlock, firmware) == 4 && sizeof(SMCBlock::firmware) == 6);
static_assert(offsetof(SMCBlock, firmwarePadding) == 10);
static_assert(offsetof(SMCBlock, powerLimit) == 12 && sizeof(SMCBlock::powerLimit) == 16);
static_assert(offsetof(SMCBlock, dataSize) == 28);
static_assert(offsetof(SMCBlock, dataType) == 32);
static_assert(offsetof(SMCBlock, attributes) == 36);
static_assert(offsetof(SMCBlock, attributesPadding) == 37);
static_assert(offsetof(SMCBlock, result) == 40);
static_assert(offsetof(SMCBlock, status) == 41);
static_assert(offsetof(SMCBlock, command) == 42);
static_assert(offsetof(SMCBlock, commandPadding) == 43);
static_assert(offsetof(SMCBlock, index) == 44);
static_assert(offsetof(SMCBlock, data) == 48);

enum class Command : std::uint8_t { readKey = 5, writeKey = 6, keyAtIndex = 8, keyInformation = 9 };

constexpr char kServiceName[] = "AppleSMC";
constexpr std::uint32_t kConnectionType = 0;
constexpr std::uint32_t kStructSelector = 2;  // the one method that takes the block
constexpr std::size_t kKeyLength = 4;

constexpr int kBadArgumentOrReply = -1;
constexpr int kUnusableSize = -2;
constexpr int kKeyNotWritable = -3;

bool isKey(const char* key) {
    return key != nullptr && strnlen(key, kKeyLength + 1) == kKeyLength;
}

bool isUsableSize(std::uint32_t size) {
    return size >= 1 && size <= FV_SMC_DATA_SIZE;
}

std::uint32_t packedKey(const char* key) {
    std::uint32_t packed = 0;
    for (std::size_t index = 0; index < kKeyLength; ++index) {
        packed = packed << 8 | static_cast<unsigned char>(key[index]);
    }
    return packed;
}

// These lists are the last word on what this program can ever change in the controller: who drives
// a fan and how fast it shall turn. Limits, unlocking and everything else stay out of reach.
constexpr const char* kWritableKeys[] = {"FS! "};
constexpr const char* kWritableFanKeys[] = {"Md", "md", "Tg"};  // after "F" and the fan's digit

bool isWritable(const char* key) {
    const auto isOneOf = [](const char* text, const auto& list) {
        return std::any_of(std::begin(list), std::end(list),
                           [text](const char* entry) { return std::strcmp(text, entry) == 0; });
    };
    const bool fanKey = key[0] == 'F' && key[1] >= '0' && key[1] <= '9';
    return isOneOf(key, kWritableKeys) || (fanKey && isOneOf(key + 2, kWritableFanKeys));
}

// 0 with the reply in place of the request; the driver's code; -1 for a reply of another size; or
// the controller's own result.
int exchange(std::uint32_t connection, Command command, SMCBlock& block) {
    block.command = static_cast<std::uint8_t>(command);
    SMCBlock reply{};
    std::size_t replySize = sizeof reply;
    const kern_return_t code = IOConnectCallStructMethod(connection, kStructSelector, &block,
                                                         sizeof block, &reply, &replySize);
    if (code != KERN_SUCCESS) {
        return code;
    }
    if (replySize != sizeof reply) {
        return kBadArgumentOrReply;
    }
    block = reply;
    return reply.result;
}

}  // namespace

uint32_t fv_smc_open(void) {
    const ferovane::shim::MatchedService service(kServiceName);
    if (!service) {
        return 0;
    }
    io_connect_t connection = IO_OBJECT_NULL;
    const kern_return_t code =
        IOServiceOpen(service.get(), mach_task_self(), kConnectionType, &connection);
    return code == KERN_SUCCESS ? connection : 0;
}

void fv_smc_close(uint32_t connection) {
    if (connection != 0) {
        IOServiceClose(connection);
    }
}

int fv_smc_describe(uint32_t connection, const char* key, FVKeyInformation* information) {
    if (connection == 0 || !isKey(key) || information == nullptr) {
        return kBadArgumentOrReply;
    }
    SMCBlock block{};
    block.key = packedKey(key);
    const int code = exchange(connection, Command::keyInformation, block);
    *information = {};
    if (code == 0) {
        *information = {block.dataSize, block.dataType, block.attributes};
    }
    return code;
}

int fv_smc_read(uint32_t connection, const char* key, FVValue* value) {
    if (connection == 0 || !isKey(key) || value == nullptr) {
        return kBadArgumentOrReply;
    }
    *value = {};
    FVKeyInformation information{};
    if (const int code = fv_smc_describe(connection, key, &information); code != 0) {
        return code;
    }
    if (!isUsableSize(information.data_size)) {
        return kUnusableSize;
    }
    value->data_size = information.data_size;
    value->data_type = information.data_type;

    SMCBlock content{};
    content.key = packedKey(key);
    content.dataSize = information.data_size;
    if (const int code = exchange(connection, Command::readKey, content); code != 0) {
        return code;
    }
    std::memcpy(value->data, content.data, sizeof value->data);
    return 0;
}

int fv_smc_write(uint32_t connection, const char* key, const FVValue* value) {
    if (connection == 0 || !isKey(key) || value == nullptr || !isUsableSize(value->data_size)) {
        return kBadArgumentOrReply;
    }
    if (!isWritable(key)) {
        return kKeyNotWritable;
    }
    SMCBlock block{};
    block.key = packedKey(key);
    block.dataSize = value->data_size;
    std::memcpy(block.data, value->data, sizeof block.data);
    return exchange(connection, Command::writeKey, block);
}

int fv_smc_key_at_index(uint32_t connection, uint32_t index, char key[FV_SMC_KEY_TEXT_SIZE]) {
    if (connection == 0 || key == nullptr) {
        return kBadArgumentOrReply;
    }
    SMCBlock block{};
    block.index = index;
    if (const int code = exchange(connection, Command::keyAtIndex, block); code != 0) {
        return code;
    }
    for (std::size_t position = 0; position < kKeyLength; ++position) {
        key[position] = static_cast<char>(block.key >> (8 * (kKeyLength - 1 - position)) & 0xFF);
    }
    key[kKeyLength] = '\0';
    return 0;
}
