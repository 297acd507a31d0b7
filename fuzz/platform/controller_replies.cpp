// A controller that answers whatever it likes: the simulated Mac's, each of whose answers the input
// may spoil on its way back.
//
// The input: some keys, then operations; each call in between takes a byte of mischief.
#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "core/hardware/smc.h"
#include "fuzz/json_properties.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/simulated_mac.h"

namespace {

using namespace ferovane;
using fuzzing::require;

using Block = std::array<std::uint8_t, 80>;
constexpr std::size_t kKeyAt = 0, kFirmwareAt = 4, kSizeAt = 28, kResultAt = 40, kCommandAt = 42,
                      kDataAt = 48;
constexpr std::uint8_t kReadKey = 5, kWriteKey = 6, kKeyAtIndex = 8, kKeyInformation = 9;

std::size_t writes = 0;
fuzzing::Input* mischief = nullptr;

std::uint32_t wordAt(const Block& block, std::size_t offset) {
    std::uint32_t word = 0;
    std::memcpy(&word, block.data() + offset, sizeof word);
    return word;
}

// What may ever be sent to the controller, read off the driver's interface.
void checkRequest(const Block& request) {
    require(std::all_of(request.begin() + kFirmwareAt, request.begin() + kSizeAt,
                        [](std::uint8_t byte) { return byte == 0; }),
            "what has no use in a request is zero");
    const std::uint8_t command = request[kCommandAt];
    const std::uint32_t size = wordAt(request, kSizeAt);
    require(command == kKeyAtIndex || command == kKeyInformation ||
                ((command == kReadKey || command == kWriteKey) && size >= 1 && size <= 32),
            "only four commands are ever used, and only sizes that fit");
    if (command == kWriteKey) {
        ++writes;
        const std::string key = simulator::unpacked(wordAt(request, kKeyAt));
        const std::string suffix = key.substr(2);
        const bool fanKey = key[0] == 'F' && key[1] >= '0' && key[1] <= '9' &&
                            (suffix == "Md" || suffix == "md" || suffix == "Tg");
        require(fanKey || key == "FS! ", "nothing but fan modes, targets and the mask is written");
    }
}

kern_return_t spoil(Block& reply, std::size_t& size) {
    const auto overwrite = [&](std::size_t at, std::size_t most) {
        std::ranges::copy(mischief->take(most), reply.begin() + std::ptrdiff_t(at));
    };
    switch (mischief->byte()) {
        case 0xFF:
            return mischief->take<std::int32_t>();
        case 0xFE:
            size = mischief->byte();
            break;
        case 0xFD:
            overwrite(kResultAt, 1);
            break;
        case 0xFC:
            overwrite(0, reply.size());
            break;
        case 0xFB:
            overwrite(kDataAt, 4);
            break;
        case 0xFA:
            overwrite(kSizeAt, 4);
            break;
        default:
            break;
    }
    return kIOReturnSuccess;
}

// The keys that the input names, each with a type that suits it or with any.
void furnish(simulator::SimulatedMac& mac, fuzzing::Input& input) {
    constexpr std::array<std::string_view, 24> kNames{
        "#KEY", "FNum", "FS! ", "F0Ac", "F0Mn", "F0Mx", "F0Md", "F0Tg",
        "F1Ac", "F1Mn", "F1Mx", "F1md", "F1Tg", "F9Md", "F9Tg", "Ftst",
        "TC0P", "TC0C", "TG0P", "Tp01", "PSTR", "VD0R", "ID0R", "F2Tg"};
    constexpr std::array<std::string_view, 8> kTypes{"fpe2", "flt ", "ui8 ", "ui16",
                                                     "ui32", "sp78", "ioft", "fp88"};
    constexpr std::array<std::uint8_t, 8> kSizes{2, 4, 1, 2, 4, 2, 8, 2};
    static std::vector<std::string> before;
    for (const std::string& key : before) {
        mac.removeKey(key);
    }
    before.clear();
    for (auto count = input.byte() % 32; count > 0; --count) {
        const auto name = input.byte();
        before.push_back(name < 240 ? std::string(kNames[name % kNames.size()])
                                    : simulator::unpacked(input.take<std::uint32_t>()));
        const auto form = input.byte();
        const auto size = form < 240 ? kSizes[form % kSizes.size()] : input.take<std::uint32_t>();
        std::vector<std::uint8_t> bytes(std::min<std::uint32_t>(size, 32));
        std::ranges::copy(input.take(bytes.size()), bytes.begin());
        mac.setKey(before.back(), kTypes[form % kTypes.size()], bytes);
        mac.setKeySize(before.back(), size);
    }
}

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
    const std::size_t before = writes;
    const bool confirmed = fuzzing::admits([&] { smc.setTarget(fan, rpm); });
    const bool usable = rpm >= 0 && rpm <= 65535;  // false for NaN
    require(usable || (!confirmed && writes == before), "what is no speed is never written");
    require(!confirmed || writes == before + 1, "a target is written once");
}

void setManual(SMC& smc, int fan, bool enabled) {
    const std::size_t before = writes;
    const bool confirmed = fuzzing::admits([&] { smc.setManual(fan, enabled); });
    require((fan >= 0 && fan < 10) || (!confirmed && writes == before),
            "only the ten fans there can be are switched");
    require(!confirmed || writes > before || !enabled, "a switched fan was written to");
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
            // Mostly four characters, as keys have; now and then none, or twice as many.
            const std::string key(input.take(odd ? input.byte() % 9U : 4U));
            const auto number = smc.number(key);
            require(!number || (std::strlen(key.c_str()) == 4 && std::isfinite(*number)),
                    "a number is finite, and stands under a key");
    }
}

}  // namespace

extern "C" {

kern_return_t __real_IOConnectCallStructMethod(mach_port_t, std::uint32_t, const void*, std::size_t,
                                               void*, std::size_t*);
kern_return_t __wrap_IOConnectCallStructMethod(mach_port_t connection, std::uint32_t selector,
                                               const void* input, std::size_t inputSize,
                                               void* output, std::size_t* outputSize) {
    Block request{}, reply{};
    require(selector == 2 && inputSize == request.size() && *outputSize == reply.size(),
            "every call is a structure of the driver's size");
    std::memcpy(request.data(), input, inputSize);
    checkRequest(request);
    __real_IOConnectCallStructMethod(connection, selector, input, inputSize, reply.data(),
                                     outputSize);
    const kern_return_t code = spoil(reply, *outputSize);
    std::memcpy(output, reply.data(), reply.size());
    return code;
}

}  // extern "C"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto mac = simulator::macFromKeyDump(
        "key,type,size,attributes,bytes,result\nTC9C,sp78,2,C0,3200,00\n");
    static const auto attached = mac.attach();
    mac.set(simulator::Property::kPrivileged, 1);
    fuzzing::Input input(data, size);
    const bool appleSilicon = (input.byte() & 1) != 0;
    furnish(mac, input);
    mischief = &input;
    double seconds = 0;
    SMC smc({[&] { return seconds; }, [&](double pause) { seconds += pause; }, appleSilicon});
    constexpr int kMostOperations = 8;
    for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
        operate(smc, input);
    }
    return 0;
}
