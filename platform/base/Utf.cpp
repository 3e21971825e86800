#include "base/Utf.h"

#include <cstdint>

namespace quelm {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isSurrogate(char32_t codePoint) {
    return codePoint >= 0xD800 && codePoint <= 0xDFFF;
}

}  // namespace

char32_t nextCodePoint(std::string_view utf8, std::size_t& position) {
    const auto lead = static_cast<std::uint8_t>(utf8[position++]);
    if (lead < 0x80) {
        return lead;
    }
    const std::size_t trail = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : 1;
    if (lead < 0xC2 || lead > 0xF4 || position + trail > utf8.size()) {
        return replacement;
    }
    char32_t codePoint = lead & (0x3FU >> trail);
    for (std::size_t i = 0; i < trail; ++i) {
        const auto byte = static_cast<std::uint8_t>(utf8[position + i]);
        if ((byte & 0xC0) != 0x80) {
            return replacement;
        }
        codePoint = codePoint << 6 | (byte & 0x3FU);
    }
    constexpr char32_t smallest[] = {0, 0x80, 0x800, 0x10000};
    if (codePoint < smallest[trail] || codePoint > 0x10FFFF || isSurrogate(codePoint)) {
        return replacement;
    }
    position += trail;
    return codePoint;
}

void appendUtf8(std::string& out, char32_t codePoint) {
    const auto push = [&out](char32_t byte) { out += static_cast<char>(static_cast<unsigned char>(byte)); };
    if (codePoint < 0x80) {
        push(codePoint);
    } else if (codePoint < 0x800) {
        push(0xC0 | codePoint >> 6);
        push(0x80 | (codePoint & 0x3F));
    } else if (codePoint < 0x10000) {
        push(0xE0 | codePoint >> 12);
        push(0x80 | (codePoint >> 6 & 0x3F));
        push(0x80 | (codePoint & 0x3F));
    } else {
        push(0xF0 | codePoint >> 18);
        push(0x80 | (codePoint >> 12 & 0x3F));
        push(0x80 | (codePoint >> 6 & 0x3F));
        push(0x80 | (codePoint & 0x3F));
    }
}

std::u16string utf8ToUtf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (std::size_t position = 0; position < utf8.size();) {
        const char32_t codePoint = nextCodePoint(utf8, position);
        if (codePoint < 0x10000) {
            out += static_cast<char16_t>(codePoint);
        } else {
            out += static_cast<char16_t>(0xD7C0 + (codePoint >> 10));
            out += static_cast<char16_t>(0xDC00 | (codePoint & 0x3FF));
        }
    }
    return out;
}

std::string utf16ToUtf8(std::u16string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    for (std::size_t i = 0; i < utf16.size(); ++i) {
        char32_t codePoint = utf16[i];
        const bool pair = codePoint >= 0xD800 && codePoint <= 0xDBFF && i + 1 < utf16.size() &&
                          utf16[i + 1] >= 0xDC00 && utf16[i + 1] <= 0xDFFF;
        if (pair) {
            codePoint = 0x10000 + ((codePoint & 0x3FF) << 10) + (utf16[++i] & 0x3FFU);
        } else if (isSurrogate(codePoint)) {
            codePoint = replacement;
        }
        appendUtf8(out, codePoint);
    }
    return out;
}

}  // namespace quelm
