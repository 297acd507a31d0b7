#include "simulator/machine/fault_forms.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace simulator::Faults {
namespace {

constexpr std::array<FaultForm, static_cast<std::size_t>(FaultKind::kCount)> kForms = {{
    {FaultKind::kRefuseWrite, "refuse-write", "kc", "", "a write is refused with the code"},
    {FaultKind::kRefuseRead, "refuse-read", "kc", "", "a read is refused with the code"},
    {FaultKind::kRefuseCall, "refuse-call", "kc", "", "any call is refused with the code"},
    {FaultKind::kIgnoreWrite, "ignore-write", "k", "", "a write is answered 0 without effect"},
    {FaultKind::kDelayWrite, "delay-write", "ks", "", "a write takes effect seconds later"},
    {FaultKind::kGarbage, "garbage", "k", "", "a read returns bytes at random"},
    {FaultKind::kZero, "zero", "k", "", "a read returns zeros"},
    {FaultKind::kFreeze, "freeze", "K", "", "reads return what the first one returned"},
    {FaultKind::kKeySize, "key-size", "kn", "size", "the key claims this size"},
    {FaultKind::kOutputSize, "output-size", "kn", "size", "calls return this many bytes"},
    {FaultKind::kRefuseOpen, "refuse-open", "c", "", "the service cannot be opened"},
    {FaultKind::kToolFails, "tool-fails", "tcx", "", "the tool prints text and exits with code"},
    {FaultKind::kToolHangs, "tool-hangs", "t", "", "the tool hangs until it is terminated"},
    {FaultKind::kToolIgnoresSigterm, "tool-ignores-sigterm", "t", "", "it hangs until killed"},
    {FaultKind::kToolGarbage, "tool-garbage", "t", "", "it prints bytes that are no text first"},
    {FaultKind::kToolMegabyte, "tool-megabyte", "t", "", "it prints a megabyte first"},
    {FaultKind::kToolNoEffect, "tool-no-effect", "t", "", "it exits with 0 and changes nothing"},
    {FaultKind::kVanishFan, "vanish-fan", "f", "", "the fan's keys are not found any more"},
    {FaultKind::kOtherWrites, "other-write", "Kn", "value", "another program writes a key"},
    {FaultKind::kTakeFan, "take-fan", "f", "", "another program takes a fan"},
    {FaultKind::kReleaseFan, "release-fan", "f", "", "another program gives a fan back"},
    {FaultKind::kDriftTarget, "drift-target", "fn", "rpm", "a target moves by rpm"},
    {FaultKind::kHoldUnlock, "hold-unlock", "n", "value", "another program sets the unlock key"},
    {FaultKind::kKeepTarget, "keep-target", "fns", "rpm", "it writes a target every seconds"},
    {FaultKind::kSet, "set", "pn", "value", "the world changes"},
    {FaultKind::kSleep, "sleep", "s", "", "the machine sleeps; the clock jumps"},
    {FaultKind::kClearFaults, "clear", "", "", "all faults end, vanished fans are back"},
}};

std::string parameterText(const FaultForm& form, char letter) {
    switch (letter) {
        case 'k':
            return " [key=]";
        case 'K':
            return " key=";
        case 'c':
            return " code=";
        case 'f':
            return " fan=";
        case 's':
            return " seconds=";
        case 't':
            return " [tool=]";
        case 'x':
            return " [text=]";
        case 'p':
            return " property=";
        default:
            break;
    }
    std::string text(1, ' ');
    text += form.numberName;
    text += '=';
    return text;
}

}  // namespace

const FaultForm& formOf(std::uint32_t kind) {
    return kForms[kind];
}

const FaultForm& formNamed(std::string_view name) {
    const auto form = std::find_if(kForms.begin(), kForms.end(),
                                   [name](const FaultForm& known) { return known.name == name; });
    if (form == kForms.end()) {
        throw std::runtime_error("unknown fault: " + std::string(name));
    }
    return *form;
}

std::vector<std::string> help() {
    std::vector<std::string> lines;
    for (const FaultForm& form : kForms) {
        std::string words(form.name);
        for (const char letter : form.takes) {
            words += parameterText(form, letter);
        }
        char line[128];
        std::snprintf(line, sizeof line, "%-40s %.*s", words.c_str(),
                      static_cast<int>(form.meaning.size()), form.meaning.data());
        lines.emplace_back(line);
    }
    return lines;
}

}  // namespace simulator::Faults
