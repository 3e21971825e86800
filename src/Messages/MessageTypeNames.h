#pragma once

// The display names of message types: the first word of a log line.

#include <cstdint>
#include <string>

namespace quelm {

// The number itself in plain decimal for a type without a name.
std::string messageTypeName(std::int32_t lngMsgType);

}  // namespace quelm
