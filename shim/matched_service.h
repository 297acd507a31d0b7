// The first registry service of a name, held for as long as this object lives.
#pragma once

#include <IOKit/IOKitLib.h>

namespace ferovane::shim {

class MatchedService {
public:
    // The lookup consumes the matching dictionary, also when it finds nothing. The main port is
    // MACH_PORT_NULL because its named constants are either deprecated or newer than macOS 11.
    explicit MatchedService(const char* name)
        : service_(IOServiceGetMatchingService(MACH_PORT_NULL, IOServiceMatching(name))) {}
    MatchedService(const MatchedService&) = delete;
    MatchedService& operator=(const MatchedService&) = delete;
    ~MatchedService() {
        if (service_ != IO_OBJECT_NULL) {
            IOObjectRelease(service_);
        }
    }

    io_service_t get() const { return service_; }
    explicit operator bool() const { return service_ != IO_OBJECT_NULL; }

private:
    io_service_t service_;
};

}  // namespace ferovane::shim
