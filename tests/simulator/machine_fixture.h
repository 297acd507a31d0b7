// A connection to the attached machine's controller through the shim, and a directory that is gone
// after the test.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "shim/fv.h"

class Connection {
public:
    Connection() : handle_(fv_smc_open()) {}
    ~Connection() { fv_smc_close(handle_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    std::uint32_t handle() const { return handle_; }

    int readCode(const char* key) const {
        FVValue value = {};
        return fv_smc_read(handle_, key, &value);
    }
    double read(const char* key) const {
        FVValue value = {};
        return fv_smc_read(handle_, key, &value) == 0 ? fv_decode(&value) : NAN;
    }
    // The code of the write, or of the read that learns the key's type.
    int write(const char* key, double number) const {
        FVValue value = {};
        if (const int code = fv_smc_read(handle_, key, &value); code != 0) {
            return code;
        }
        return fv_encode(&value, number) != 0 ? -99 : fv_smc_write(handle_, key, &value);
    }

private:
    std::uint32_t handle_;
};

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
