// The text form of faults and happenings.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "simulator/machine/fault_forms.h"
#include "simulator/machine/faults.h"
#include "simulator/machine/four_characters.h"

namespace simulator::Faults {
namespace {

double numberIn(std::string_view word, std::string_view text) {
    const auto number = worldNumber(std::string(text));
    if (!number) {
        throw std::runtime_error("not a number: " + std::string(word));
    }
    return *number;
}

// "0x82", "130" or "-536870207"; an IOKit code may also be written 0xE00002C1.
std::int32_t codeIn(std::string_view word, std::string_view text) {
    const std::string owned(text);
    char* end = nullptr;
    const long long number = std::strtoll(owned.c_str(), &end, 0);
    if (owned.empty() || *end != '\0' || number > std::numeric_limits<std::uint32_t>::max() ||
        number < std::numeric_limits<std::int32_t>::min()) {
        throw std::runtime_error("not a code: " + std::string(word));
    }
    return static_cast<std::int32_t>(number);
}

std::uint32_t keyIn(std::string_view word, std::string_view text) {
    if (text.empty() || text.size() > 4) {
        throw std::runtime_error("a key has four characters: " + std::string(word));
    }
    return packed(text);
}

template <std::size_t kSize>
void copyText(std::string_view word, std::string_view text, char (&into)[kSize]) {
    if (text.size() >= kSize) {
        throw std::runtime_error("too long: " + std::string(word));
    }
    std::memcpy(into, text.data(), text.size());
    into[text.size()] = '\0';
}

void setMoment(FaultRecord& fault, Moment::Kind kind, double seconds, std::uint64_t count) {
    fault.momentKind = static_cast<std::uint32_t>(kind);
    fault.momentSeconds = seconds;
    fault.momentCount = count;
}

bool readMoment(World& world, FaultRecord& fault, std::string_view name, std::string_view word,
                std::string_view text) {
    const WorldState& state = world.state();
    if (name == "in") {
        setMoment(fault, Moment::Kind::kTime, state.machineSeconds + numberIn(word, text), 0);
    } else if (name == "at") {
        setMoment(fault, Moment::Kind::kTime, numberIn(word, text), 0);
    } else if (name == "call") {
        setMoment(fault, Moment::Kind::kCall, 0,
                  state.totalCalls + static_cast<std::uint64_t>(codeIn(word, text)));
    } else if (name == "write") {
        setMoment(fault, Moment::Kind::kWrite, 0,
                  state.totalWrites + static_cast<std::uint64_t>(codeIn(word, text)));
    } else {
        return false;
    }
    return true;
}

std::uint32_t propertyIn(std::string_view word, std::string_view text) {
    const auto property = propertyNamed(text);
    if (!property) {
        throw std::runtime_error("unknown property: " + std::string(word));
    }
    return static_cast<std::uint32_t>(*property);
}

void readValue(FaultRecord& fault, std::string_view word, std::string_view text) {
    fault.form = static_cast<std::uint32_t>(text == "absent" ? PropertyForm::kAbsent
                                            : text == "text" ? PropertyForm::kNotANumber
                                                             : PropertyForm::kNumber);
    fault.number =
        fault.form == static_cast<std::uint32_t>(PropertyForm::kNumber) ? numberIn(word, text) : 0;
}

bool readParameter(FaultRecord& fault, const FaultForm& form, std::string_view name,
                   std::string_view word, std::string_view text) {
    if (name == "key" && (takes(form, 'k') || takes(form, 'K'))) {
        fault.key = keyIn(word, text);
    } else if (name == "code" && takes(form, 'c')) {
        fault.code = codeIn(word, text);
    } else if (name == "fan" && takes(form, 'f')) {
        fault.fan = codeIn(word, text);
    } else if (name == form.numberName && takes(form, 'n')) {
        readValue(fault, word, text);
    } else if (name == "seconds" && takes(form, 's')) {
        fault.seconds = numberIn(word, text);
        if (fault.seconds < 0) {
            throw std::runtime_error("time does not go back: " + std::string(word));
        }
    } else if (name == "tool" && takes(form, 't')) {
        copyText(word, text, fault.tool);
    } else if (name == "text" && takes(form, 'x')) {
        copyText(word, text, fault.text);
    } else if (name == "property" && takes(form, 'p')) {
        fault.property = propertyIn(word, text);
    } else if (name == "times" && isLasting(form.kind)) {
        fault.times = codeIn(word, text);
    } else {
        return false;
    }
    return true;
}

void add(std::string& line, const char* format, double number) {
    char text[64];
    std::snprintf(text, sizeof text, format, number);
    line += text;
}

void addMoment(std::string& line, const FaultRecord& fault) {
    switch (static_cast<Moment::Kind>(fault.momentKind)) {
        case Moment::Kind::kNow:
            break;
        case Moment::Kind::kTime:
            add(line, " at=%.10g", fault.momentSeconds);
            break;
        case Moment::Kind::kCall:
            line += " at-call=" + std::to_string(fault.momentCount);
            break;
        case Moment::Kind::kWrite:
            line += " at-write=" + std::to_string(fault.momentCount);
            break;
    }
}

std::string codeText(std::int32_t code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%02X", static_cast<unsigned>(code));
    return text;
}

}  // namespace

FaultRecord parse(World& world, const std::vector<std::string>& words) {
    if (words.empty()) {
        throw std::runtime_error("name a fault");
    }
    const FaultForm& form = formNamed(words.front());
    FaultRecord fault = {};
    fault.kind = static_cast<std::uint32_t>(form.kind);
    for (auto word = words.begin() + 1; word != words.end(); ++word) {
        const std::size_t equals = word->find('=');
        const std::string_view name = std::string_view(*word).substr(0, equals);
        const std::string_view text =
            equals == std::string::npos ? "" : std::string_view(*word).substr(equals + 1);
        if (equals == std::string::npos || (!readParameter(fault, form, name, *word, text) &&
                                            !readMoment(world, fault, name, *word, text))) {
            throw std::runtime_error(std::string(form.name) + " does not take " + *word);
        }
    }
    if (takes(form, 'K') && fault.key == 0) {
        throw std::runtime_error(std::string(form.name) + " needs key=");
    }
    return fault;
}

std::string text(const FaultRecord& fault) {
    const FaultForm& form = formOf(fault.kind);
    std::string line(form.name);
    if (fault.key != 0) {
        line += " key=" + unpacked(fault.key);
    }
    if (takes(form, 'c')) {
        line += " code=" + codeText(fault.code);
    }
    if (takes(form, 'f')) {
        line += " fan=" + std::to_string(fault.fan);
    }
    if (takes(form, 'p')) {
        line += " property=" + std::string(propertyName(static_cast<Property>(fault.property)));
    }
    if (takes(form, 'n')) {
        line += ' ';
        line += form.numberName;
        add(line, "=%.10g", fault.number);
    }
    if (takes(form, 's')) {
        add(line, " seconds=%.10g", fault.seconds);
    }
    if (fault.tool[0] != '\0') {
        line += " tool=" + std::string(fault.tool);
    }
    if (fault.times > 0) {
        line += " times=" + std::to_string(fault.times);
    }
    addMoment(line, fault);
    return line;
}

}  // namespace simulator::Faults
