#pragma once

// Values, qualities and times as answers have them.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "base/Variant.h"

namespace quelm::health {

// With its members in the order in which they were put in.
using Json = nlohmann::ordered_json;

// In one line; broken UTF-8 becomes U+FFFD.
std::string lineOf(const Json& json);
// "2026-11-23T22:31:40.125Z"; null for 0, which is never, and for what no calendar has.
Json timeOf(std::int64_t fileTime);
// Numbers, truth values and texts as such, dates as texts, null for what is none of them.
Json valueOf(const Variant& value);
std::string_view typeNameOf(std::uint16_t varType);
// "good", "bad, device failure"
std::string qualityWords(std::uint16_t quality);

}  // namespace quelm::health
