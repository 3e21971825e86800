#pragma once

// What stands in an answer of the server, where anything may be missing or of another kind.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "OPC/Monitor/ControlLink.h"

namespace quelm::monitor {

// The member as a finite number; truth values as 1 and 0. Nothing for anything else, or where it is missing.
std::optional<double> numberIn(const Json& object, const char* name);
// The member as a text; "" for anything else.
std::string textIn(const Json& object, const char* name);
// The member, where it is a list; an empty list for anything else.
const Json& listIn(const Json& object, const char* name);
// Seconds since 1970 UTC of a member such as "2026-11-23T22:31:40.125Z"; nothing for null (never) or another form.
std::optional<double> timeIn(const Json& object, const char* name);

}  // namespace quelm::monitor
