// A machine in a directory:
//
//     state           what it is, mapped by every attached process
//     journal         what was done to it
//     root/           the file system in which its tools are looked up
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "simulator/machine/key_table.h"
#include "simulator/machine/machine.h"
#include "simulator/machine/model.h"

namespace simulator::MachineDirectory {

// Makes a machine; the directory may exist, but not hold a machine yet. Nothing is left of one that
// could not be completed. Throws std::runtime_error.
std::unique_ptr<Machine> create(const std::string& directory, const Model& model,
                                const std::vector<KeyDefinition>& keys);
// Throws std::runtime_error when there is no machine, or one of another version.
std::unique_ptr<Machine> open(const std::string& directory);

// Puts the turbo-disabling extension where the bits (TurboInstallation) say, and nowhere else.
void placeTurboExtension(const std::string& root, unsigned where);

}  // namespace simulator::MachineDirectory
