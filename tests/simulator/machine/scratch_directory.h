// A directory that is gone after the test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

class ScratchDirectory {
public:
    ScratchDirectory() {
        std::string path = (std::filesystem::temp_directory_path() / "mac-XXXXXX").string();
        path_ = ::mkdtemp(path.data()) != nullptr ? path : "";
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    std::string path(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};
