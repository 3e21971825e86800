#pragma once

// What a client typed, as it may stand in a log.

#include <string>
#include <string_view>

namespace quelm::dcom {

// Control and format characters (line breaks of any kind, terminal sequences, marks that turn the direction of text
// around) and broken sequences show as "?", and the text ends after the given number of characters. UTF-8.
std::string printable(std::string_view text, std::size_t longest = 128);

}  // namespace quelm::dcom
