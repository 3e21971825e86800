#pragma once

// What a command says to programs: one line of JSON, whatever a database put into its texts.

#include <nlohmann/json.hpp>
#include <string>

#include "base/Date.h"
#include "base/Variant.h"

namespace quelm::tools {

// With its members in the order in which they were put in.
using Json = nlohmann::ordered_json;

// Numbers as numbers (null where JSON has none), dates and texts as texts, Empty and Null as null.
Json jsonOf(const Variant& value);
// As text; null for the zero date.
Json jsonOf(Date date);

// In one line; broken UTF-8 becomes U+FFFD, control characters are escaped.
std::string lineOf(const Json& json);

}  // namespace quelm::tools
