#include "dcom/Printable.h"

#include <algorithm>

#include "base/Utf.h"

namespace quelm::dcom {

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

// The general categories Cc, Cf, Zl, Zp and Cs of Unicode 15, from its character database, neighbours merged, and
// what stands for broken sequences.
constexpr Range unprintable[] = {
    {0x00, 0x1F},       {0x7F, 0x9F},       {0xAD, 0xAD},       {0x600, 0x605},     {0x61C, 0x61C},
    {0x6DD, 0x6DD},     {0x70F, 0x70F},     {0x890, 0x891},     {0x8E2, 0x8E2},     {0x180E, 0x180E},
    {0x200B, 0x200F},   {0x2028, 0x202E},   {0x2060, 0x206F},   {0xD800, 0xDFFF},   {0xFEFF, 0xFEFF},
    {0xFFF9, 0xFFFB},   {0xFFFD, 0xFFFD},   {0x110BD, 0x110BD}, {0x110CD, 0x110CD}, {0x13430, 0x1343F},
    {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0001, 0xE007F},
};

bool isPrintable(char32_t c) {
    const auto* const range = std::ranges::lower_bound(unprintable, c, {}, &Range::last);
    return range == std::end(unprintable) || c < range->first;
}

}  // namespace

std::string printable(std::string_view text, std::size_t longest) {
    std::string result;
    std::size_t at = 0;
    for (std::size_t count = 0; count < longest && at < text.size(); ++count) {
        const char32_t c = nextCodePoint(text, at);
        appendUtf8(result, isPrintable(c) ? c : U'?');
    }
    return result;
}

}  // namespace quelm::dcom
