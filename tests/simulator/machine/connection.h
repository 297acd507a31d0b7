// A connection to the attached machine's controller through the shim.
#pragma once

#include <cmath>
#include <cstdint>

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
