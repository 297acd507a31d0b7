#include "helper/commands.h"
#include "helper/standard_streams.h"

int main(int argc, char** argv) {
    ferovane::occupyStandardDescriptors();
    return ferovane::runHelper({argv, argv + argc}, ferovane::productionEnvironment());
}
