#pragma once

// The failure that every "number, description" in a message shows, and the one place that turns any other
// exception into such a pair.

#include <exception>
#include <string>

namespace quelm {

class RuntimeError : public std::exception {
 public:
    // description empty: the number's classic text (see runtimeErrorText).
    explicit RuntimeError(long number, std::string description = {});

    long number() const { return number_; }
    const std::string& description() const { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

 private:
    long number_;
    std::string description_;
};

namespace errors {
inline constexpr long invalidCall = 5;
inline constexpr long overflow = 6;
inline constexpr long outOfMemory = 7;
inline constexpr long subscript = 9;
inline constexpr long typeMismatch = 13;
inline constexpr long objectNotSet = 91;
inline constexpr long invalidUseOfNull = 94;
inline constexpr long duplicateKey = 457;
}  // namespace errors

// The classic text of a runtime error number ("Overflow"); "Application-defined or object-defined error" for others.
const char* runtimeErrorText(long number);

// What a handler prints of a failure.
struct ErrorInfo {
    long number = 0;
    std::string description;
    // number + ", " + description, the form that every message uses
    std::string text() const { return std::to_string(number) + ", " + description; }
};

// To be called inside a catch block: the exception in flight as number and description. bad_alloc becomes 7,
// out_of_range 9, bad_cast and the like 13, other standard exceptions 5 with their own text, anything else 5.
ErrorInfo currentError();

}  // namespace quelm
