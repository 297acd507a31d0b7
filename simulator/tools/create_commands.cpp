// models, create
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>

#include "simulator/machine/simulated_mac.h"
#include "simulator/tools/command.h"

namespace simulator::tools {
namespace {

constexpr std::size_t kMostBytes = 16U << 20U;  // a real dump has some ten thousand

std::string fileContent(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path + ": " +
                                 std::generic_category().message(errno));
    }
    std::string content(kMostBytes + 1, '\0');
    file.read(content.data(), static_cast<std::streamsize>(content.size()));
    if (file.bad()) {
        throw std::runtime_error("cannot read " + path + ": " +
                                 std::generic_category().message(errno));
    }
    content.resize(static_cast<std::size_t>(file.gcount()));
    if (content.size() > kMostBytes) {
        throw std::runtime_error(path + " is too large for a key dump");
    }
    return content;
}

SimulatedMac created(const Words& words) {
    if (words.size() != 3) {
        throw UsageError("a directory and --model or --keys are needed");
    }
    const std::string& directory = directoryIn(words);
    if (words[1] == "--model") {
        return createMachineDirectory(directory, words[2]);
    }
    if (words[1] == "--keys") {
        return createMachineDirectoryFromKeyDump(directory, fileContent(words[2]));
    }
    throw UsageError("unknown option " + words[1]);
}

}  // namespace

const std::string& directoryIn(const Words& words) {
    if (words.empty() || words.front().empty() || words.front().front() == '-') {
        throw UsageError("a machine directory is needed");
    }
    return words.front();
}

int listModels(const Words& words) {
    if (!words.empty()) {
        throw UsageError("no arguments are taken");
    }
    for (const ModelInfo& model : builtInModels()) {
        std::printf("%-15s %s\n", model.name.c_str(), model.description.c_str());
    }
    return 0;
}

int create(const Words& words) {
    SimulatedMac mac = created(words);
    std::printf("%s: %zu keys, %d fan%s\n", words[0].c_str(), mac.keyCount(), mac.fanCount(),
                mac.fanCount() == 1 ? "" : "s");
    return 0;
}

}  // namespace simulator::tools
