// The library's only error type.
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/model/result_code.h"

namespace ferovane {

// Carries one user-facing text (Simplified Chinese), shown exactly as it stands: by commands on
// standard error, by the session as a reply's message; and beside it what it is to a program.
class ScopeError : public std::exception {
public:
    explicit ScopeError(std::string message, ResultCode code = ResultCode::failed)
        : message_(std::move(message)), code_(code) {}

    const std::string& message() const noexcept { return message_; }
    ResultCode code() const noexcept { return code_; }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
    ResultCode code_;
};

// The text of any caught exception as a user is to see it: a ScopeError's message. Of another,
// whose own text is in no user's language, that memory ran out, or that the fault is ours. Needs no
// memory; lives as long as the exception.
std::string_view userText(const std::exception& error) noexcept;

// The same, to keep.
std::string describe(const std::exception& error);

// What any caught exception is to a program.
ResultCode codeOf(const std::exception& error) noexcept;

// Several failures in one message, in order, joined with "；".
std::string joinFailures(const std::vector<std::string>& failures);

}  // namespace ferovane
