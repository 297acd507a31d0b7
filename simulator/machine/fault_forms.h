// Each kind of fault by name, and what it can be given.
#pragma once

#include <string_view>

#include "simulator/machine/faults.h"

namespace simulator::Faults {

// What a fault may be given; a letter each in FaultForm::takes.
//   k key (or any)   K key (needed)   c code   f fan   n number   s seconds   t tool   x text
//   p property
struct FaultForm {
    FaultKind kind;
    std::string_view name;
    std::string_view takes;
    std::string_view numberName;  // what `number` is called for this kind
    std::string_view meaning;
};

const FaultForm& formOf(std::uint32_t kind);
const FaultForm& formNamed(std::string_view name);  // throws std::runtime_error

inline bool takes(const FaultForm& form, char letter) {
    return form.takes.find(letter) != std::string_view::npos;
}

}  // namespace simulator::Faults
