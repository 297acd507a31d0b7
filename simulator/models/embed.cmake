# Writes a source file that holds the given files as texts:
#   cmake -DOUTPUT=file.cpp -DFILES="a.csv;b.csv" -P embed.cmake
set(entries "")
foreach(file IN LISTS FILES)
    get_filename_component(name "${file}" NAME)
    file(READ "${file}" content)
    string(APPEND entries "    {\"${name}\",\n     R\"embedded(${content})embedded\"},\n")
endforeach()
file(WRITE "${OUTPUT}"
"#include \"simulator/machine/embedded_data.h\"

#include <stdexcept>
#include <string>

namespace simulator {
namespace {

struct Entry {
    std::string_view name;
    std::string_view content;
};

constexpr Entry kEntries[] = {
${entries}};

}  // namespace

std::string_view embeddedData(std::string_view name) {
    for (const Entry& entry : kEntries) {
        if (entry.name == name) {
            return entry.content;
        }
    }
    throw std::runtime_error(\"no embedded table \" + std::string(name));
}

}  // namespace simulator
")
