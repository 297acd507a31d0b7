#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

// A directory of the test's own, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = testing::TempDir() + "standin-XXXXXX";
        path_ = mkdtemp(name.data());
    }
    ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Makes the file and the directories above it; the path is relative.
    void write(const std::string& file, std::string_view text) const {
        std::filesystem::create_directories((path_ / file).parent_path());
        std::ofstream(path_ / file) << text;
    }

private:
    std::filesystem::path path_;
};
