#pragma once

// UTF-8 to UTF-16 and back. All text inside the server is UTF-8; the wire and some databases want UTF-16.
// Broken sequences become U+FFFD, so that no outside text can stop a conversion.

#include <string>
#include <string_view>

namespace quelm {

// Reads one code point of UTF-8 at position and moves position behind it; U+FFFD for a broken sequence
// (position then moves by one byte). position must lie inside the text.
char32_t nextCodePoint(std::string_view utf8, std::size_t& position);
void appendUtf8(std::string& out, char32_t codePoint);

std::u16string utf8ToUtf16(std::string_view utf8);
std::string utf16ToUtf8(std::u16string_view utf16);

}  // namespace quelm
