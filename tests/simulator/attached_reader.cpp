// Prints the number of a key, or the code that reading it gave.
#include <cstdint>
#include <cstdio>

#include "shim/fv.h"

int main(int count, char** arguments) {
    if (count != 2) {
        return 2;
    }
    const std::uint32_t connection = fv_smc_open();
    FVValue value = {};
    const int code = fv_smc_read(connection, arguments[1], &value);
    if (code == 0) {
        std::printf("%.10g\n", fv_decode(&value));
    } else {
        std::printf("code %d\n", code);
    }
    fv_smc_close(connection);
    return 0;
}
