// A controller that answers whatever it likes. This program brings the driver's call along: it
// keeps keys as a sane controller does, and at each call the input may choose to misbehave.
//
// The input: some keys, then operations; each call in between takes a byte of mischief.
#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <map>
#include <string>

#include "core/hardware/smc.h"
#include "core/model/scope_error.h"
#include "fuzz/json_properties.h"
#include "simulator/machine/four_characters.h"

namespace {

using namespace ferovane;
using fuzzing::require;
using simulator::packed;

using Block = std::array<std::uint8_t, 80>;
constexpr std::size_t kKeyAt = 0, kFirmwareAt = 4, kSizeAt = 28, kTypeAt = 32, kResultAt = 40,
                      kCommandAt = 42, kIndexAt = 44, kDataAt = 48;
constexpr std::uint8_t kReadKey = 5, kWriteKey = 6, kKeyAtIndex = 8, kKeyInformation = 9;
constexpr std::uint8_t kNoSuchKey = 0x84;

std::uint32_t wordAt(const Block& block, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, block.data() + offset, sizeof word);
    return word;
}

void setWord(Block& block, std::size_t offset, std::uint32_t word) {
    std::memcpy(block.data() + offset, &word, sizeof word);
}

class Controller {
public:
    // The keys that the input names, each with a type that suits it or with any.
    void furnish(fuzzing::Input& input) {
        constexpr std::array<std::string_view, 24> kNames{
            "#KEY", "FNum", "FS! ", "F0Ac", "F0Mn", "F0Mx", "F0Md", "F0Tg",
            "F1Ac", "F1Mn", "F1Mx", "F1md", "F1Tg", "F9Md", "F9Tg", "Ftst",
            "TC0P", "TC0C", "TG0P", "Tp01", "PSTR", "VD0R", "ID0R", "F2Tg"};
        constexpr std::array<std::string_view, 8> kTypes{"fpe2", "flt ", "ui8 ", "ui16",
                                                         "ui32", "sp78", "ioft", "fp88"};
        constexpr std::array<std::uint8_t, 8> kSizes{2, 4, 1, 2, 4, 2, 8, 2};
        keys_.clear();
        for (auto count = input.byte() % 32; count > 0; --count) {
            const auto name = input.byte();
            const std::uint32_t code =
                name < 240 ? packed(kNames[name % kNames.size()]) : input.take<std::uint32_t>();
            const auto form = input.byte();
            Key& key = keys_[code];
            key.type = packed(kTypes[form % kTypes.size()]);
            key.size = form < 240 ? kSizes[form % kSizes.size()] : input.take<std::uint32_t>();
            key.data = {};
            const std::string_view bytes = input.take(std::min<std::uint32_t>(key.size, 32));
            std::copy(bytes.begin(), bytes.end(), key.data.begin());
        }
    }

    void misbehaveBy(fuzzing::Input& input) { mischief_ = &input; }

    kern_return_t call(const Block& request, Block& reply, std::size_t& replySize) {
        checkRequest(request);
        reply = {};
        answer(request, reply);
        return mischief(reply, replySize);
    }

    std::size_t writes = 0;

private:
    struct Key {
        std::uint32_t type = 0, size = 0;
        std::array<std::uint8_t, 32> data{};
    };

    // What may ever be sent to the controller, read off the driver's interface.
    void checkRequest(const Block& request) {
        require(std::all_of(request.begin() + kFirmwareAt, request.begin() + kSizeAt,
                            [](std::uint8_t byte) { return byte == 0; }),
                "what has no use in a request is zero");
        const std::uint8_t command = request[kCommandAt];
        require(command == kReadKey || command == kWriteKey || command == kKeyAtIndex ||
                    command == kKeyInformation,
                "only four commands are ever used");
        if (command == kReadKey || command == kWriteKey) {
            const std::uint32_t size = wordAt(request, kSizeAt);
            require(size >= 1 && size <= 32, "only sizes that fit are asked for or sent");
        }
        if (command == kWriteKey) {
            ++writes;
            checkWritable(simulator::unpacked(wordAt(request, kKeyAt)));
        }
    }

    static void checkWritable(const std::string& key) {
        const std::string suffix = key.substr(2);
        const bool fanKey = key[0] == 'F' && key[1] >= '0' && key[1] <= '9' &&
                            (suffix == "Md" || suffix == "md" || suffix == "Tg");
        require(fanKey || key == "FS! ", "nothing but fan modes, targets and the mask is written");
    }

    void answer(const Block& request, Block& reply) {
        if (request[kCommandAt] == kKeyAtIndex) {
            const std::uint32_t index = wordAt(request, kIndexAt);
            reply[kResultAt] = index < keys_.size() ? 0 : kNoSuchKey;
            if (index < keys_.size()) {
                setWord(reply, kKeyAt, std::next(keys_.begin(), index)->first);
            }
            return;
        }
        const auto found = keys_.find(wordAt(request, kKeyAt));
        if (found == keys_.end()) {
            reply[kResultAt] = kNoSuchKey;
            return;
        }
        Key& key = found->second;
        if (request[kCommandAt] == kWriteKey) {
            std::copy_n(request.begin() + kDataAt, key.data.size(), key.data.begin());
        }
        setWord(reply, kSizeAt, key.size);
        setWord(reply, kTypeAt, key.type);
        std::copy(key.data.begin(), key.data.end(), reply.begin() + kDataAt);
    }

    kern_return_t mischief(Block& reply, std::size_t& replySize) {
        const auto overwrite = [&](std::size_t at, std::size_t most) {
            std::ranges::copy(mischief_->take(most), reply.begin() + std::ptrdiff_t(at));
        };
        replySize = reply.size();
        switch (mischief_->byte()) {
            case 0xFF:
                return mischief_->take<std::int32_t>();
            case 0xFE:
                replySize = mischief_->byte();
                break;
            case 0xFD:
                reply[kResultAt] = mischief_->byte();
                break;
            case 0xFC:
                overwrite(0, reply.size());
                break;
            case 0xFB:
                overwrite(kDataAt, 4);
                break;
            case 0xFA:
                setWord(reply, kSizeAt, mischief_->take<std::uint32_t>());
                break;
            default:
                break;
        }
        return kIOReturnSuccess;
    }

    std::map<std::uint32_t, Key> keys_;
    fuzzing::Input* mischief_ = nullptr;
};
Controller controller;

void checkFans(SMC& smc) {
    const auto fans = smc.fans();
    require(fans.size() <= 10, "there are at most ten fans");
    for (std::size_t i = 0; i < fans.size(); ++i) {
        const FanReading& fan = fans[i];
        require(fan.id == static_cast<int>(i), "fans are numbered in order");
        require(!fan.controllable || (fan.maximum && *fan.maximum > 0 && *fan.maximum <= 12000),
                "a fan that can be controlled has a believable maximum");
        // A number that is not finite could not be told to a monitor.
        fuzzing::checkAccepted(fan);
    }
}

void checkSensorKeys(const SMC& smc) {
    // A controller that says so has thousands of keys, each of which is asked for.
    constexpr double kFewKeys = 64;
    constexpr std::size_t kManyKeysShare = 64;
    const double count = smc.number("#KEY").value_or(0);
    if (count > kFewKeys && !fuzzing::sampled(std::to_string(count), kManyKeysShare)) {
        return;
    }
    const auto sensors = smc.sensorKeys();
    for (std::size_t i = 0; i < sensors.size(); ++i) {
        require(sensors[i].key.size() == 4 && !firstInvalidUtf8(sensors[i].key),
                "a key is a text of four characters");
        require(i == 0 || sensors[i - 1].key < sensors[i].key, "sensor keys are sorted, each once");
    }
}

void setTarget(SMC& smc, int fan, double rpm) {
    const std::size_t writesBefore = controller.writes;
    const bool confirmed = fuzzing::admits([&] { smc.setTarget(fan, rpm); });
    const bool usable = rpm >= 0 && rpm <= 65535;  // false for NaN
    require(usable || (!confirmed && controller.writes == writesBefore),
            "what is no speed is never written");
    require(!confirmed || controller.writes == writesBefore + 1, "a target is written once");
}

void setManual(SMC& smc, int fan, bool enabled) {
    const std::size_t writesBefore = controller.writes;
    const bool confirmed = fuzzing::admits([&] { smc.setManual(fan, enabled); });
    const bool wrote = controller.writes > writesBefore;
    require((fan >= 0 && fan < 10) || (!confirmed && !wrote),
            "only the ten fans there can be are switched");
    require(!confirmed || wrote || !enabled, "a switched fan was written to");
}

// Mostly four characters, as keys have; now and then none, or twice as many.
std::string keyFrom(fuzzing::Input& input, bool ofAnyLength) {
    constexpr std::size_t kLengths = 9;
    const std::size_t length = ofAnyLength ? input.byte() % kLengths : 4;
    return std::string(input.take(length));
}

void operate(SMC& smc, fuzzing::Input& input) {
    const auto choice = input.byte();
    const bool odd = choice >= 0xF8;
    const int fan = odd ? input.take<std::int8_t>() : choice / 8 % 12;
    switch (choice % 8) {
        case 0:
            return checkFans(smc);
        case 1:
        case 2:
            return setManual(smc, fan, choice % 8 == 1);
        case 3:
            return setTarget(smc, fan, input.take<std::uint16_t>());
        case 4:
            return setTarget(smc, fan, input.take<double>());
        case 5:
            return checkSensorKeys(smc);
        default:
            break;
    }
    const std::string key = keyFrom(input, odd);
    const bool isKey = std::strlen(key.c_str()) == 4;
    if (choice % 8 == 6) {
        const auto number = smc.number(key);
        require(!number || (isKey && std::isfinite(*number)),
                "a number is finite, and stands under a key");
        return;
    }
    FVValue value{};  // as a caller of the shim would, with any key
    value.data_size = input.byte() % 40;
    const int code = fv_smc_write(1, key.c_str(), &value);
    require((isKey && value.data_size >= 1 && value.data_size <= 32) || code == -1,
            "an unusable argument is refused");
}

}  // namespace

extern "C" {

CFMutableDictionaryRef IOServiceMatching(const char*) {
    return nullptr;
}
io_service_t IOServiceGetMatchingService(mach_port_t, CFDictionaryRef) {
    return 7;
}
kern_return_t IOObjectRelease(io_object_t) {
    return kIOReturnSuccess;
}
kern_return_t IOServiceClose(io_connect_t) {
    return kIOReturnSuccess;
}
kern_return_t IOServiceOpen(io_service_t, task_port_t, std::uint32_t, io_connect_t* connect) {
    *connect = 1;
    return kIOReturnSuccess;
}

kern_return_t IOConnectCallStructMethod(mach_port_t, std::uint32_t selector, const void* input,
                                        std::size_t inputSize, void* output,
                                        std::size_t* outputSize) {
    Block request{};
    Block reply{};
    require(selector == 2 && inputSize == request.size() && *outputSize == reply.size(),
            "every call is a structure of the driver's size");
    std::memcpy(request.data(), input, inputSize);
    const kern_return_t code = controller.call(request, reply, *outputSize);
    std::memcpy(output, reply.data(), reply.size());
    return code;
}

}  // extern "C"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzing::Input input(data, size);
    const bool appleSilicon = (input.byte() & 1) != 0;
    controller.furnish(input);
    controller.misbehaveBy(input);
    double seconds = 0;
    SMC smc({[&] { return seconds; }, [&](double pause) { seconds += pause; }, appleSilicon});
    constexpr int kMostOperations = 8;
    for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
        operate(smc, input);
    }
    return 0;
}
