#include "simulator/machine/faults.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <span>
#include <stdexcept>

#include "simulator/machine/fans.h"
#include "simulator/machine/four_characters.h"
#include "simulator/machine/key_table.h"

namespace simulator::Faults {
namespace {

// ---- What momentary happenings do ---------------------------------------------------------------

// A write by another program; false when there is no such key or it cannot hold the number.
bool writeAsOther(World& world, std::uint32_t code, double number) {
    KeyRecord* key = KeyTable::find(world, code);
    ValueBytes bytes = {};
    if (key == nullptr || !KeyTable::encode(*key, number, bytes)) {
        return false;
    }
    if (key->role == KeyRole::kUnlock) {
        Fans::write(world, *key, bytes.data());  // the lock notices whoever turns it
    } else {
        KeyTable::store(world, *key, bytes.data());
    }
    Fans::recordHolder(world.state(), kHeldByOther);
    char line[48];
    std::snprintf(line, sizeof line, "write %s=%.10g -> 00", unpacked(code).c_str(), number);
    world.note(kOtherProgram, line);
    return true;
}

void writeMode(World& world, std::size_t fan, std::uint32_t mode) {
    WorldState& state = world.state();
    if (state.controller == ControllerKind::kForcedMask) {
        const std::uint32_t bit = 1U << fan;
        writeAsOther(world, packed("FS! "),
                     mode == 1 ? state.forcedMask | bit : state.forcedMask & ~bit);
    } else if (!writeAsOther(world, fanKey(fan, "Md"), mode)) {
        writeAsOther(world, fanKey(fan, "md"), mode);
    }
}

std::size_t fanOf(const FaultRecord& happening) {
    return static_cast<std::size_t>(happening.fan);
}

void vanishFan(World& world, const FaultRecord& happening) {
    world.state().fans[happening.fan].vanished = 1;
    world.note(kOutsideWorld, "fan " + std::to_string(happening.fan) + " vanished");
}

void takeFan(World& world, const FaultRecord& happening) {
    writeMode(world, fanOf(happening), 1);
    writeAsOther(world, fanKey(fanOf(happening), "Tg"), world.state().fans[happening.fan].maximum);
}

void keepTarget(World& world, const FaultRecord& happening) {
    // No program is quicker, and a machine must not spend all of its time on one.
    constexpr double kShortestPeriodSeconds = 0.01;
    FanRecord& fan = world.state().fans[happening.fan];
    const bool kept = happening.seconds > 0;
    fan.rivalTarget = happening.number;
    fan.rivalPeriod = kept ? std::max(happening.seconds, kShortestPeriodSeconds) : 0;
    fan.rivalNextTime = kept ? world.state().machineSeconds + fan.rivalPeriod : 0;
    writeMode(world, fanOf(happening), 1);
    writeAsOther(world, fanKey(fanOf(happening), "Tg"), happening.number);
}

void setProperty(World& world, const FaultRecord& happening) {
    const auto property = static_cast<Property>(happening.property);
    const auto form = static_cast<PropertyForm>(happening.form);
    world.property(property) = {happening.number, form, 0};
    char number[32];
    std::snprintf(number, sizeof number, "%.10g", happening.number);
    const std::string_view word = formName(form);
    world.note(kOutsideWorld, std::string(propertyName(property)) + "=" +
                                  (word.empty() ? number : std::string(word)));
}

void sleep(World& world, const FaultRecord& happening) {
    WorldState& state = world.state();
    state.sleptSeconds += happening.seconds;
    state.machineSeconds += happening.seconds;
    char line[48];
    std::snprintf(line, sizeof line, "slept %.10g s", happening.seconds);
    world.note(kOutsideWorld, line);
    Fans::wake(world);
}

void clearFaults(World& world, const FaultRecord&);

// ---- The table ----------------------------------------------------------------------------------

// What a fault may be given, a letter each:
//   k key (or any)   K key (needed)   c code   f fan   n number   s seconds   t tool   x text
//   p property
struct FaultForm {
    std::string_view name;
    std::string_view takes;
    std::string_view numberName;  // what `number` is called for this kind
    std::string_view meaning;
    void (*effect)(World&, const FaultRecord&) = nullptr;  // of a momentary one; null: it lasts
};

constexpr std::array<FaultForm, static_cast<std::size_t>(FaultKind::kCount)> kForms = {{
    {"refuse-write", "kc", "", "a write is refused with the code"},
    {"refuse-read", "kc", "", "a read is refused with the code"},
    {"refuse-call", "kc", "", "any call is refused with the code"},
    {"ignore-write", "k", "", "a write is answered 0 without effect"},
    {"delay-write", "ks", "", "a write takes effect seconds later"},
    {"garbage", "k", "", "a read returns bytes at random"},
    {"zero", "k", "", "a read returns zeros"},
    {"freeze", "K", "", "reads return what the first one returned"},
    {"key-size", "kn", "size", "the key claims this size"},
    {"output-size", "kn", "size", "calls return this many bytes"},
    {"refuse-open", "c", "", "the service cannot be opened"},
    {"tool-fails", "ctx", "", "the tool prints text and exits with code"},
    {"tool-hangs", "t", "", "the tool hangs until it is terminated"},
    {"tool-ignores-sigterm", "t", "", "it hangs until killed"},
    {"tool-garbage", "t", "", "it prints bytes that are no text first"},
    {"tool-megabyte", "t", "", "it prints a megabyte first"},
    {"tool-no-effect", "t", "", "it exits with 0 and changes nothing"},
    {"log-hangs", "", "", "the system's log takes no line until the fault is cleared"},
    {"vanish-fan", "f", "", "the fan's keys are not found any more", vanishFan},
    {"other-write", "Kn", "value", "another program writes a key",
     [](World& world, const FaultRecord& told) { writeAsOther(world, told.key, told.number); }},
    {"take-fan", "f", "", "another program takes a fan", takeFan},
    {"release-fan", "f", "", "another program gives a fan back",
     [](World& world, const FaultRecord& told) { writeMode(world, fanOf(told), 0); }},
    {"drift-target", "fn", "rpm", "a target moves by rpm",
     [](World& world, const FaultRecord& told) {
         const double target = world.state().fans[told.fan].target;
         writeAsOther(world, fanKey(fanOf(told), "Tg"), target + told.number);
     }},
    {"hold-unlock", "n", "value", "another program sets the unlock key",
     [](World& world, const FaultRecord& told) {
         writeAsOther(world, packed("Ftst"), told.number);
     }},
    {"keep-target", "fns", "rpm", "it writes a target every seconds", keepTarget},
    {"set", "pn", "value", "the world changes", setProperty},
    {"sleep", "s", "", "the machine sleeps; the clock jumps", sleep},
    {"clear", "", "", "all faults end, vanished fans are back", clearFaults},
}};

const FaultForm& formOf(const FaultRecord& fault) {
    return kForms[fault.kind];
}

bool takes(const FaultForm& form, char letter) {
    return form.takes.find(letter) != std::string_view::npos;
}

std::string_view nameOf(const FaultForm& form, char letter) {
    switch (letter) {
        case 'k':
        case 'K':
            return "key";
        case 'c':
            return "code";
        case 'f':
            return "fan";
        case 's':
            return "seconds";
        case 't':
            return "tool";
        case 'x':
            return "text";
        case 'p':
            return "property";
        default:
            return form.numberName;
    }
}

// ---- Moments ------------------------------------------------------------------------------------

// Those that may hold a fault: every controller call looks through them.
std::span<FaultRecord> usedSlots(WorldState& state) {
    return {state.faults, state.faultSlots};
}

constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();

bool hasCome(const WorldState& state, const FaultRecord& fault) {
    switch (static_cast<Moment::Kind>(fault.momentKind)) {
        case Moment::Kind::kNow:
            return true;
        case Moment::Kind::kTime:
            return fault.momentSeconds <= state.machineSeconds;
        case Moment::Kind::kCall:
            return fault.momentCount <= state.totalCalls;
        case Moment::Kind::kWrite:
            return fault.momentCount <= state.totalWrites;
    }
    return true;
}

void findNextDue(WorldState& state) {
    state.nextDue = std::numeric_limits<double>::infinity();
    state.nextCallDue = kNever;
    state.nextWriteDue = kNever;
    for (const FaultRecord& fault : usedSlots(state)) {
        if (fault.phase != FaultPhase::kWaiting) {
            continue;
        }
        switch (static_cast<Moment::Kind>(fault.momentKind)) {
            case Moment::Kind::kNow:
            case Moment::Kind::kTime:
                state.nextDue = std::min(state.nextDue, fault.momentSeconds);
                break;
            case Moment::Kind::kCall:
                state.nextCallDue = std::min(state.nextCallDue, fault.momentCount);
                break;
            case Moment::Kind::kWrite:
                state.nextWriteDue = std::min(state.nextWriteDue, fault.momentCount);
                break;
        }
    }
}

void release(WorldState& state, FaultRecord& fault) {
    if (fault.phase == FaultPhase::kActive) {
        --state.activeFaults;
    }
    fault.phase = FaultPhase::kFree;
}

void clearFaults(World& world, const FaultRecord&) {
    WorldState& state = world.state();
    for (FaultRecord& fault : usedSlots(state)) {
        release(state, fault);
    }
    state.faultSlots = 0;
    for (FanRecord& fan : state.fans) {
        fan.rivalPeriod = 0;
        fan.rivalNextTime = 0;
        fan.vanished = 0;
    }
    findNextDue(state);
    world.note(kOutsideWorld, "faults cleared");
}

void noteFault(World& world, const FaultRecord& fault, const char* what) {
    world.note(kOutsideWorld, "fault " + text(fault) + what);
}

void takeEffect(World& world, const FaultRecord& happening) {
    const bool noSuchFan = happening.fan < 0 || fanOf(happening) >= world.state().fanCount;
    if (!takes(formOf(happening), 'f') || !noSuchFan) {
        formOf(happening).effect(world, happening);
    }
}

// Its moment has come: a lasting fault becomes active, a momentary one happens.
void happen(World& world, FaultRecord& fault) {
    fault.momentKind = static_cast<std::uint32_t>(Moment::Kind::kNow);
    if (formOf(fault).effect == nullptr) {
        fault.phase = FaultPhase::kActive;
        ++world.state().activeFaults;
        noteFault(world, fault, "");
        return;
    }
    const FaultRecord happening = fault;
    fault.phase = FaultPhase::kFree;
    takeEffect(world, happening);
}

FaultRecord* used(World& world, FaultRecord& fault) {
    if (++fault.strikes == 1) {
        noteFault(world, fault, " strikes");
    }
    if (fault.times > 0 && --fault.times == 0) {
        release(world.state(), fault);
    }
    return &fault;
}

// The earliest waiting record that is due: happenings keep their order in time.
FaultRecord* nextToHappen(WorldState& state) {
    FaultRecord* next = nullptr;
    for (FaultRecord& fault : usedSlots(state)) {
        if (fault.phase == FaultPhase::kWaiting && hasCome(state, fault) &&
            (next == nullptr || fault.momentSeconds < next->momentSeconds)) {
            next = &fault;
        }
    }
    return next;
}

// ---- Text ---------------------------------------------------------------------------------------

double numberIn(const std::string& text) {
    const auto number = worldNumber(text);
    if (!number) {
        throw std::runtime_error("not a number");
    }
    return *number;
}

// "0x82", "130" or "-536870207"; an IOKit code may also be written 0xE00002C1.
std::int32_t codeIn(const std::string& text) {
    char* end = nullptr;
    const long long number = std::strtoll(text.c_str(), &end, 0);
    if (text.empty() || *end != '\0' || number > std::numeric_limits<std::uint32_t>::max() ||
        number < std::numeric_limits<std::int32_t>::min()) {
        throw std::runtime_error("not a code");
    }
    return static_cast<std::int32_t>(number);
}

double secondsIn(const std::string& text) {
    const double seconds = numberIn(text);
    if (seconds < 0) {
        throw std::runtime_error("time does not go back");
    }
    return seconds;
}

std::uint32_t keyIn(const std::string& text) {
    if (text.empty() || text.size() > 4) {
        throw std::runtime_error("a key has four characters");
    }
    return packed(text);
}

std::uint32_t propertyIn(const std::string& text) {
    const auto property = propertyNamed(text);
    if (!property) {
        throw std::runtime_error("unknown property");
    }
    return static_cast<std::uint32_t>(*property);
}

void readParameter(FaultRecord& fault, char letter, const std::string& text) {
    switch (letter) {
        case 'k':
        case 'K':
            fault.key = keyIn(text);
            break;
        case 'c':
            fault.code = codeIn(text);
            break;
        case 'f':
            fault.fan = codeIn(text);
            break;
        case 's':
            fault.seconds = secondsIn(text);
            break;
        case 't':
            copyText(text, fault.tool);
            break;
        case 'x':
            copyText(text, fault.text);
            break;
        case 'p':
            fault.property = propertyIn(text);
            break;
        default:
            const PropertyForm form = formNamed(text);
            fault.form = static_cast<std::uint32_t>(form);
            fault.number = form == PropertyForm::kNumber ? numberIn(text) : 0;
    }
}

// The words that every kind takes. False when the name is none of them.
bool readMoment(const WorldState& state, FaultRecord& fault, std::string_view name,
                const std::string& text) {
    const auto kind = name == "in" || name == "at" ? Moment::Kind::kTime
                      : name == "call"             ? Moment::Kind::kCall
                      : name == "write"            ? Moment::Kind::kWrite
                                                   : Moment::Kind::kNow;
    if (name == "times" && formOf(fault).effect == nullptr) {
        fault.times = codeIn(text);
        return true;
    }
    if (kind == Moment::Kind::kTime) {
        fault.momentSeconds = numberIn(text) + (name == "in" ? state.machineSeconds : 0);
    } else if (kind != Moment::Kind::kNow) {
        fault.momentCount = static_cast<std::uint64_t>(codeIn(text)) +
                            (kind == Moment::Kind::kCall ? state.totalCalls : state.totalWrites);
    }
    fault.momentKind = static_cast<std::uint32_t>(kind);
    return kind != Moment::Kind::kNow;
}

void readWord(const WorldState& state, FaultRecord& fault, const std::string& word) {
    const FaultForm& form = formOf(fault);
    const std::size_t equals = std::min(word.find('='), word.size());
    const std::string_view name = std::string_view(word).substr(0, equals);
    const std::string text = word.substr(std::min(equals + 1, word.size()));
    const auto* letter = std::find_if(form.takes.begin(), form.takes.end(),
                                      [&](char taken) { return nameOf(form, taken) == name; });
    try {
        if (equals == word.size()) {
            throw std::runtime_error("NAME=VALUE is needed");
        }
        if (letter != form.takes.end()) {
            readParameter(fault, *letter, text);
        } else if (!readMoment(state, fault, name, text)) {
            throw std::runtime_error("not taken by " + std::string(form.name));
        }
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string(error.what()) + ": " + word);
    }
}

std::string shown(const char* format, double number) {
    char text[64];
    std::snprintf(text, sizeof text, format, number);
    return text;
}

// "" for what may be left out and was.
std::string parameterText(const FaultRecord& fault, char letter) {
    char code[16];
    switch (letter) {
        case 'k':
        case 'K':
            return fault.key != 0 ? unpacked(fault.key) : "";
        case 'c':
            std::snprintf(code, sizeof code, "0x%02X", static_cast<unsigned>(fault.code));
            return code;
        case 'f':
            return std::to_string(fault.fan);
        case 's':
            return shown("%.10g", fault.seconds);
        case 't':
            return fault.tool;
        case 'p':
            return std::string(propertyName(static_cast<Property>(fault.property)));
        case 'n':
            return shown("%.10g", fault.number);
        default:
            return "";
    }
}

std::string momentText(const FaultRecord& fault) {
    switch (static_cast<Moment::Kind>(fault.momentKind)) {
        case Moment::Kind::kTime:
            return shown(" at=%.10g", fault.momentSeconds);
        case Moment::Kind::kCall:
            return " at-call=" + std::to_string(fault.momentCount);
        case Moment::Kind::kWrite:
            return " at-write=" + std::to_string(fault.momentCount);
        default:
            return "";
    }
}

const FaultRecord& checked(const FaultRecord& fault) {
    if (takes(formOf(fault), 'K') && fault.key == 0) {
        throw std::runtime_error(std::string(formOf(fault).name) + " needs key=");
    }
    return fault;
}

}  // namespace

FaultRecord record(const Happening& happening, const Moment& moment) {
    FaultRecord fault = {};
    fault.kind = static_cast<std::uint32_t>(happening.kind);
    fault.momentKind = static_cast<std::uint32_t>(moment.kind);
    fault.momentSeconds = moment.seconds;
    fault.momentCount = moment.count;
    fault.key = happening.key.empty() ? 0 : packed(happening.key);
    fault.code = happening.code;
    fault.times = happening.times;
    fault.fan = happening.fan;
    fault.number = happening.number;
    fault.seconds = happening.seconds;
    fault.property = static_cast<std::uint32_t>(happening.property);
    fault.form = static_cast<std::uint32_t>(happening.form);
    copyText(happening.tool, fault.tool);
    copyText(happening.text, fault.text);
    return checked(fault);
}

FaultRecord parse(World& world, const std::vector<std::string>& words) {
    const std::string name = words.empty() ? "" : words.front();
    const auto* form = std::find_if(kForms.begin(), kForms.end(),
                                    [&](const FaultForm& known) { return known.name == name; });
    if (form == kForms.end()) {
        throw std::runtime_error("unknown fault: " + name);
    }
    FaultRecord fault = {};
    fault.kind = static_cast<std::uint32_t>(form - kForms.begin());
    fault.form = static_cast<std::uint32_t>(PropertyForm::kNumber);
    for (auto word = words.begin() + 1; word != words.end(); ++word) {
        readWord(world.state(), fault, *word);
    }
    return checked(fault);
}

std::string text(const FaultRecord& fault) {
    std::string line(formOf(fault).name);
    for (const char letter : formOf(fault).takes) {
        if (const std::string value = parameterText(fault, letter); !value.empty()) {
            line += " " + std::string(nameOf(formOf(fault), letter)) + "=" + value;
        }
    }
    if (fault.times > 0) {
        line += " times=" + std::to_string(fault.times);
    }
    return line + momentText(fault);
}

std::vector<std::string> help() {
    std::vector<std::string> lines;
    for (const FaultForm& form : kForms) {
        std::string words(form.name);
        for (const char letter : form.takes) {
            const bool optional = letter == 'k' || letter == 't' || letter == 'x';
            const std::string word = std::string(nameOf(form, letter)) + "=";
            words += optional ? " [" + word + "]" : " " + word;
        }
        words.resize(std::max<std::size_t>(words.size(), 40), ' ');
        lines.push_back(words + " " + std::string(form.meaning));
    }
    return lines;
}

void befall(World& world, const FaultRecord& fault) {
    WorldState& state = world.state();
    if (static_cast<FaultKind>(fault.kind) == FaultKind::kClearFaults && hasCome(state, fault)) {
        takeEffect(world, fault);  // needs no free place
        return;
    }
    auto* const slot =
        std::find_if(std::begin(state.faults), std::end(state.faults),
                     [](const FaultRecord& known) { return known.phase == FaultPhase::kFree; });
    if (slot == std::end(state.faults)) {
        throw std::runtime_error("more than " + std::to_string(kMaxFaults) +
                                 " faults are pending on this machine");
    }
    state.faultSlots =
        std::max(state.faultSlots, static_cast<std::uint32_t>(slot - state.faults) + 1);
    *slot = fault;
    slot->phase = FaultPhase::kWaiting;
    if (hasCome(state, fault)) {
        happen(world, *slot);
    }
    findNextDue(state);
}

void runDue(World& world) {
    WorldState& state = world.state();
    while (FaultRecord* fault = nextToHappen(state)) {
        happen(world, *fault);
    }
    findNextDue(state);
}

FaultRecord* strike(World& world, FaultKind kind, std::uint32_t key) {
    WorldState& state = world.state();
    if (state.activeFaults == 0) {
        return nullptr;
    }
    for (FaultRecord& fault : usedSlots(state)) {
        if (fault.phase == FaultPhase::kActive && fault.kind == static_cast<std::uint32_t>(kind) &&
            (fault.key == 0 || fault.key == key)) {
            return used(world, fault);
        }
    }
    return nullptr;
}

FaultRecord* strikeTool(World& world, FaultKind kind, std::string_view tool) {
    for (FaultRecord& fault : usedSlots(world.state())) {
        const std::string_view only(fault.tool);
        if (fault.phase == FaultPhase::kActive && fault.kind == static_cast<std::uint32_t>(kind) &&
            (only.empty() || only == tool)) {
            return used(world, fault);
        }
    }
    return nullptr;
}

std::vector<FaultRecord> pending(World& world) {
    std::vector<FaultRecord> found;
    std::copy_if(std::begin(world.state().faults), std::end(world.state().faults),
                 std::back_inserter(found),
                 [](const FaultRecord& fault) { return fault.phase != FaultPhase::kFree; });
    return found;
}

}  // namespace simulator::Faults
