#include "core/model/json_form.h"

#include <cmath>

#include "core/model/scope_error.h"

namespace ferovane {
namespace {

// Beyond this a double no longer tells neighbouring whole numbers apart, so that one written with
// a point may not be the number that is meant.
constexpr double kWholeBelow = 9007199254740992.0;  // 2^53

}  // namespace

JsonProblem readJsonInteger(const JsonScalar& scalar, std::int64_t& value) {
    if (const auto* whole = std::get_if<std::int64_t>(&scalar)) {
        value = *whole;
        return JsonProblem::none;
    }
    const double* number = std::get_if<double>(&scalar);
    if (number == nullptr) {
        return JsonProblem::wrongType;
    }
    if (!(std::fabs(*number) < kWholeBelow)) {
        return JsonProblem::outOfRange;
    }
    if (std::trunc(*number) != *number) {
        return JsonProblem::wrongType;
    }
    value = static_cast<std::int64_t>(*number);
    return JsonProblem::none;
}

JsonProblem readJsonNumber(const JsonScalar& scalar, double& value) {
    if (const auto* whole = std::get_if<std::int64_t>(&scalar)) {
        value = static_cast<double>(*whole);
        return JsonProblem::none;
    }
    if (const double* number = std::get_if<double>(&scalar)) {
        value = *number;
        return JsonProblem::none;
    }
    return JsonProblem::wrongType;
}

JsonProblem readJsonDate(const JsonScalar& scalar, JsonDates dates, Date& value) {
    if (dates == JsonDates::secondsSinceReference) {
        return readJsonNumber(scalar, value.secondsSinceReference);
    }
    const auto* text = std::get_if<std::string_view>(&scalar);
    if (text == nullptr) {
        return JsonProblem::wrongType;
    }
    try {
        value = parseIso8601(*text);
    } catch (const ScopeError&) {
        return JsonProblem::invalidDate;  // the codec's message names the member instead
    }
    return JsonProblem::none;
}

JsonScalar writeJsonDate(Date value, JsonDates dates, std::string& scratch) {
    if (dates == JsonDates::secondsSinceReference) {
        return value.secondsSinceReference;
    }
    scratch = iso8601(value);
    return std::string_view(scratch);
}

}  // namespace ferovane
