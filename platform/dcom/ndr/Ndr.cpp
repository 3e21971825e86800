#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::ndr {

namespace {

constexpr char32_t replacement = 0xFFFD;

bool isHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool isLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit < 0xE000;
}

void appendUtf8(std::string& text, char32_t point) {
    const auto byte = [&text](char32_t value) { text += static_cast<char>(value); };
    if (point < 0x80) {
        byte(point);
    } else if (point < 0x800) {
        byte(0xC0 | point >> 6);
        byte(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        byte(0xE0 | point >> 12);
        byte(0x80 | (point >> 6 & 0x3F));
        byte(0x80 | (point & 0x3F));
    } else {
        byte(0xF0 | point >> 18);
        byte(0x80 | (point >> 12 & 0x3F));
        byte(0x80 | (point >> 6 & 0x3F));
        byte(0x80 | (point & 0x3F));
    }
}

// The code point that starts at position, which moves behind it; malformed bytes give one replacement each.
char32_t nextPoint(std::string_view utf8, std::size_t& position) {
    const auto byteAt = [&](std::size_t at) { return static_cast<std::uint8_t>(utf8[at]); };
    const std::uint8_t lead = byteAt(position++);
    if (lead < 0x80) {
        return lead;
    }
    const std::size_t more = lead >= 0xF0 && lead < 0xF5 ? 3 : lead >= 0xE0 ? 2 : 1;
    if (lead < 0xC2 || lead >= 0xF5 || utf8.size() - position < more) {
        return replacement;
    }
    char32_t point = lead & (0x3FU >> more);
    for (std::size_t i = 0; i < more; ++i) {
        const std::uint8_t trail = byteAt(position + i);
        if ((trail & 0xC0) != 0x80) {
            return replacement;
        }
        point = point << 6 | (trail & 0x3FU);
    }
    constexpr char32_t smallest[] = {0, 0x80, 0x800, 0x10000};
    if (point < smallest[more] || point > 0x10FFFF || isHighSurrogate(point) || isLowSurrogate(point)) {
        return replacement;
    }
    position += more;
    return point;
}

}  // namespace

std::string Reader::wideString() {
    const std::uint32_t maximum = u32();
    const std::uint32_t offset = u32();
    const std::uint32_t actual = count(2);
    if (!good() || offset != 0 || actual > maximum) {
        fail();
        return {};
    }
    const auto raw = bytes(std::size_t{actual} * 2);
    const auto unitAt = [&raw](std::size_t index) {
        return static_cast<char32_t>(raw[2 * index] | raw[2 * index + 1] << 8);
    };
    std::string text;
    text.reserve(actual);
    for (std::size_t i = 0; i < actual; ++i) {
        const char32_t unit = unitAt(i);
        if (unit == 0) {
            break;
        }
        if (isHighSurrogate(unit) && i + 1 < actual && isLowSurrogate(unitAt(i + 1))) {
            appendUtf8(text, 0x10000 + ((unit - 0xD800) << 10) + (unitAt(++i) - 0xDC00));
        } else {
            appendUtf8(text, isHighSurrogate(unit) || isLowSurrogate(unit) ? replacement : unit);
        }
    }
    return text;
}

void Writer::wideString(std::string_view utf8) {
    align(4);
    const std::size_t counts = position();
    // No code point has more UTF-16 units than UTF-8 bytes, so that this is room enough.
    std::uint8_t* const start = extend(12 + 2 * (utf8.size() + 1));
    std::uint8_t* at = start + 12;
    const auto unit = [&at](char32_t value) {
        *at++ = static_cast<std::uint8_t>(value);
        *at++ = static_cast<std::uint8_t>(value >> 8);
    };
    std::size_t i = 0;
    // Names and descriptions are plain nearly always, and a browsing client gets a hundred thousand of them.
    for (; i < utf8.size() && static_cast<unsigned char>(utf8[i]) < 0x80; ++i) {
        unit(static_cast<unsigned char>(utf8[i]));
    }
    while (i < utf8.size()) {
        const char32_t point = nextPoint(utf8, i);
        if (point < 0x10000) {
            unit(point);
        } else {
            unit(0xD800 + ((point - 0x10000) >> 10));
            unit(0xDC00 + ((point - 0x10000) & 0x3FF));
        }
    }
    unit(0);
    const auto written = static_cast<std::size_t>(at - start);
    const auto units = static_cast<std::uint32_t>((written - 12) / 2);
    patchU32(counts, units);
    patchU32(counts + 4, 0);
    patchU32(counts + 8, units);
    out_.resize(origin_ + counts + written);
}

}  // namespace quelm::dcom::ndr
