#include "core/power/power_configuration.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>
#include <system_error>
#include <utility>

namespace ferovane {

namespace {

constexpr std::string_view kBlanks = " \t\v\f\r";

std::string_view trimmed(std::string_view line) {
    const auto first = line.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

// Takes the first field off a line, blanks before it included; empty at the end of the line.
std::string_view nextField(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    const auto field = line.substr(0, line.find_first_of(kBlanks));
    line.remove_prefix(field.size());
    return field;
}

std::optional<std::int64_t> decimal(std::string_view field) {
    std::int64_t number = 0;
    const auto end = field.data() + field.size();
    const auto [stop, error] = std::from_chars(field.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

class ReportReader {
public:
    void read(std::string_view line) {
        if (line == "AC Power:") {
            enter(PowerSource::ac);
        } else if (line == "Battery Power:") {
            enter(PowerSource::battery);
        } else if (line.ends_with(" Power:")) {
            // Another source's section (a UPS): its values must not pass for those of the section
            // before it.
            source_.reset();
        } else if (source_) {
            readSetting(line);
        }
    }

    PowerConfiguration take() { return std::move(configuration_); }

private:
    void enter(PowerSource source) {
        source_ = source;
        configuration_.profiles[source];
    }

    void readSetting(std::string_view line) {
        const auto setting = fromRawValue<PowerSetting>(nextField(line));
        const auto value = decimal(nextField(line));
        if (!setting || !value || !valid(*setting, *value)) {
            return;
        }
        auto& settings = configuration_.profiles[*source_];
        if (seen_.emplace(*source_, *setting).second) {
            settings[*setting] = *value;
        } else {
            settings.erase(*setting);  // which of the two holds cannot be told
        }
    }

    PowerConfiguration configuration_;
    std::optional<PowerSource> source_;
    std::set<std::pair<PowerSource, PowerSetting>> seen_;
};

}  // namespace

std::optional<std::int64_t> PowerConfiguration::value(PowerSetting setting,
                                                      PowerSource source) const {
    const auto settings = profiles.find(source);
    if (settings == profiles.end()) {
        return std::nullopt;
    }
    const auto found = settings->second.find(setting);
    return found == settings->second.end() ? std::nullopt : std::optional(found->second);
}

PowerConfiguration PowerConfiguration::parse(std::string_view text) {
    ReportReader reader;
    while (!text.empty()) {
        const auto line = text.substr(0, text.find_first_of("\n\r"));
        reader.read(trimmed(line));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return reader.take();
}

}  // namespace ferovane
