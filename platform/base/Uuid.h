#pragma once

// A 16-byte UUID, kept in the byte order it has on a little-endian wire, so that
// comparing, hashing and copying it never has to look inside.

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quelm {

struct Uuid {
    std::array<std::uint8_t, 16> bytes{};

    constexpr auto operator<=>(const Uuid&) const = default;

    // True for the all-zero UUID, which stands for "none".
    constexpr bool isNull() const { return *this == Uuid{}; }

    // Reads "39C13A4D-011E-11D0-9675-0020AFD8ADB3", with or without braces, in either case.
    // Throws std::invalid_argument on anything else (a compile error in constant expressions).
    static constexpr Uuid parse(std::string_view text) {
        if (text.size() == 38 && text.front() == '{' && text.back() == '}') {
            text = text.substr(1, 36);
        }
        if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') {
            throw std::invalid_argument("not a UUID");
        }
        // Position in the text of the two digits that make each wire byte: the first three groups are numbers
        // and lie little endian, the last two are plain bytes.
        constexpr std::array<std::uint8_t, 16> at{6, 4, 2, 0, 11, 9, 16, 14, 19, 21, 24, 26, 28, 30, 32, 34};
        Uuid result;
        for (std::size_t i = 0; i < 16; ++i) {
            result.bytes[i] = static_cast<std::uint8_t>(digit(text[at[i]]) << 4 | digit(text[at[i] + 1U]));
        }
        return result;
    }

    // "39c13a4d-011e-11d0-9675-0020afd8adb3"
    std::string toText() const {
        constexpr std::array<int, 20> order{3, 2, 1, 0, -1, 5, 4, -1, 7, 6, -1, 8, 9, -1, 10, 11, 12, 13, 14, 15};
        constexpr std::string_view hex = "0123456789abcdef";
        std::string text;
        text.reserve(36);
        for (const int index : order) {
            if (index < 0) {
                text += '-';
            } else {
                const std::uint8_t byte = bytes[static_cast<std::size_t>(index)];
                text += hex[byte >> 4];
                text += hex[byte & 15];
            }
        }
        return text;
    }

 private:
    static constexpr int digit(char c) {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        throw std::invalid_argument("not a UUID");
    }
};

namespace literals {
consteval Uuid operator""_uuid(const char* text, std::size_t size) {
    return Uuid::parse({text, size});
}
}  // namespace literals

}  // namespace quelm

template <>
struct std::hash<quelm::Uuid> {
    std::size_t operator()(const quelm::Uuid& uuid) const noexcept {
        std::uint64_t low = 0;
        std::uint64_t high = 0;
        std::memcpy(&low, uuid.bytes.data(), 8);
        std::memcpy(&high, uuid.bytes.data() + 8, 8);
        return (low * 0x9E3779B97F4A7C15ULL) ^ (high * 0xC2B2AE3D27D4EB4FULL);
    }
};
