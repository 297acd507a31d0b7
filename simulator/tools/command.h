// The commands of simulated-mac. Each gets the words after its own name and returns the exit
// status; what cannot be done throws std::runtime_error, wrong usage throws UsageError.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace simulator::tools {

using Words = std::vector<std::string>;

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

int listModels(const Words& words);
int create(const Words& words);
int show(const Words& words);
int watch(const Words& words);
int set(const Words& words);
int write(const Words& words);
int fault(const Words& words);
int journal(const Words& words);
int run(const Words& words);

// The machine's own tools, as the scripts in its root start them: DIR, then the tool's arguments.
int pmset(const Words& words);
int kmutil(const Words& words);
int sysctl(const Words& words);
int ioreg(const Words& words);
int powermetrics(const Words& words);

// The first word, which names the machine directory; throws UsageError when it is missing.
const std::string& directoryIn(const Words& words);

}  // namespace simulator::tools
