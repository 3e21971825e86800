#pragma once

// JSON texts of single values and of objects, in one line each.

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Shared Types/Variant.h"

namespace quelm::tools::json {

// Broken UTF-8 becomes U+FFFD, so that the result is always valid.
std::string text(std::string_view value);
std::string boolean(bool value);
// Numbers as numbers (null where JSON has none), dates and texts as texts, Empty and Null as null.
std::string value(const Variant& value);
// items: JSON texts.
std::string array(std::span<const std::string> items);

using Field = std::pair<std::string_view, std::string>;  // name, JSON text
std::string object(std::span<const Field> fields);

}  // namespace quelm::tools::json
