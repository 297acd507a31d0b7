// Puts every input of a corpus through a door, without a fuzzer.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

#include "fuzz/property.h"

int main(int argc, char** argv) {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(argc == 2 ? argv[1] : "")) {
        files.insert(entry.path());
    }
    for (const auto& path : files) {
        // Said before it runs: an input that breaks a property ends the program.
        std::fprintf(stderr, "%s\n", path.filename().c_str());
        std::ifstream file(path, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        if (!file) {
            return 1;
        }
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
