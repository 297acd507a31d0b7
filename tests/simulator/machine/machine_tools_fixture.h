// A machine directory and the tools that work on it, run as processes.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "simulator/machine/simulated_mac.h"
#include "tests/simulator/machine/scratch_directory.h"

inline std::string quoted(const std::string& word) {
    return "'" + word + "'";
}

inline std::string besideThisProgram(const std::string& name) {
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

struct Result {
    int status = -1;
    std::string output;  // standard output only
    std::string errors;
};

class MachineToolsTest : public testing::Test {
protected:
    Result run(const std::string& command) {
        const std::string errors = scratch_.path("errors");
        std::FILE* pipe = ::popen((command + " 2>" + errors).c_str(), "r");
        Result result;
        std::array<char, 4096> piece = {};
        for (std::size_t got = 0; (got = std::fread(piece.data(), 1, piece.size(), pipe)) > 0;) {
            result.output.append(piece.data(), got);
        }
        const int status = ::pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
        std::ifstream file(errors);
        result.errors.assign(std::istreambuf_iterator<char>(file), {});
        return result;
    }
    Result tool(const std::string& words) {
        return run(besideThisProgram("simulated-mac") + " " + words);
    }
    std::string own(const std::string& name) { return directory() + "/root/usr/bin/" + name; }
    Result pmset(const std::string& words) { return run(own("pmset") + " " + words); }
    Result kmutil(const std::string& words) { return run(own("kmutil") + " " + words); }
    std::string directory() const { return scratch_.path("mac"); }

    simulator::SimulatedMac make(const char* model) {
        simulator::SimulatedMac mac = simulator::createMachineDirectory(directory(), model);
        mac.set(simulator::Property::kPrivileged, 1);
        return mac;
    }

    ScratchDirectory scratch_;
};
