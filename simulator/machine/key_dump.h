// Key dumps: a controller as a table, one key a line.
//
//     key,type,size,attributes,bytes,result
//     F0Ac,fpe2,2,90,21B4,00
//
// key and type have four characters ("\0" stands for a NUL, missing ones are blanks); size is
// decimal, the rest hexadecimal. No attributes: readable. No bytes: the key answers the result
// byte when it is read, 85 when that is 00 or when the bytes are the words "NOT READABLE".
#pragma once

#include <string_view>
#include <vector>

#include "simulator/machine/key_table.h"

namespace simulator {

// Throws std::runtime_error naming line and field. The order of the lines is kept.
std::vector<KeyDefinition> parseKeyDump(std::string_view csv);

}  // namespace simulator
