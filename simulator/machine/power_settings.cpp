#include "simulator/machine/power_settings.h"

#include <stdexcept>

namespace simulator::PowerSettings {
namespace {

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(' ');
    const std::size_t last = text.find_last_not_of(' ');
    return first == std::string_view::npos ? "" : text.substr(first, last - first + 1);
}

}  // namespace

PowerSettingRecord* find(World& world, std::string_view source, std::string_view name) {
    for (PowerSettingRecord& setting : world.state().powerSettings) {
        if (setting.used != 0 && source == setting.source && name == setting.name) {
            return &setting;
        }
    }
    return nullptr;
}

void set(World& world, std::string_view source, std::string_view name, std::string_view value) {
    if (PowerSettingRecord* known = find(world, source, name)) {
        copyText(value, known->value);
        return;
    }
    for (PowerSettingRecord& setting : world.state().powerSettings) {
        if (setting.used == 0) {
            copyText(source, setting.source);
            copyText(name, setting.name);
            copyText(value, setting.value);
            setting.used = 1;
            return;
        }
    }
    throw std::runtime_error("no room for more power settings");
}

void remove(World& world, std::string_view source, std::string_view name) {
    if (PowerSettingRecord* setting = find(world, source, name)) {
        setting->used = 0;
    }
}

std::vector<const PowerSettingRecord*> all(World& world) {
    std::vector<const PowerSettingRecord*> found;
    for (const PowerSettingRecord& setting : world.state().powerSettings) {
        if (setting.used != 0) {
            found.push_back(&setting);
        }
    }
    return found;
}

void read(World& world, std::string_view print) {
    std::string_view source;
    while (!print.empty()) {
        const std::size_t feed = print.find('\n');
        const std::string_view line = print.substr(0, feed);
        print = feed == std::string_view::npos ? "" : print.substr(feed + 1);
        const std::string_view text = trimmed(line);
        const std::size_t gap = text.rfind(' ');
        if (!line.empty() && line.front() != ' ' && line.back() == ':') {
            source = line.substr(0, line.size() - 1);
        } else if (gap != std::string_view::npos) {
            // A name may hold blanks; the value is the last word.
            set(world, source, trimmed(text.substr(0, gap)), text.substr(gap + 1));
        }
    }
}

}  // namespace simulator::PowerSettings
