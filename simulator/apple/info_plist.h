// The one thing read of a bundle's property list.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace simulator {

// The text of a string-valued key of the top dictionary of an XML property list; nothing when the
// key is missing, has another type, or the list is of another form (such as the binary one).
std::optional<std::string> propertyListString(std::string_view xml, std::string_view key);

}  // namespace simulator
