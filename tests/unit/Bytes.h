#pragma once

// Bytes as the tests of the wire write them down, build them and show them.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quelm::test {

using Bytes = std::vector<std::uint8_t>;

// "05 00 0B": blanks wherever they help.
inline Bytes fromHex(std::string_view text) {
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (c != ' ' && (digits += c).size() == 2) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::exchange(digits, {}), nullptr, 16)));
        }
    }
    return bytes;
}

// Lines of four bytes show where long ones differ.
inline std::string toHex(std::span<const std::uint8_t> bytes, bool inLines = false) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
        text += inLines && i % 4 == 3 ? "\n" : "";
    }
    return text;
}

// expected: hex digits, or bytes.
#define EXPECT_HEX(bytes, expected) \
    EXPECT_EQ(::quelm::test::toHex(bytes, true), ::quelm::test::toHex(::quelm::test::toBytes(expected), true))

inline Bytes toBytes(std::string_view hex) {
    return fromHex(hex);
}
inline Bytes toBytes(std::span<const std::uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

// Puts numbers, little endian, and bytes one behind the other.
class Builder {
 public:
    Builder& u8(std::uint64_t value) { return number(value, 1); }
    Builder& u16(std::uint64_t value) { return number(value, 2); }
    Builder& u32(std::uint64_t value) { return number(value, 4); }
    Builder& hex(std::string_view text) { return add(fromHex(text)); }
    Builder& add(std::span<const std::uint8_t> more) {
        data_.insert(data_.end(), more.begin(), more.end());
        return *this;
    }
    const Bytes& data() const { return data_; }

 private:
    Builder& number(std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i) {
            data_.push_back(static_cast<std::uint8_t>(value >> 8 * i));
        }
        return *this;
    }
    Bytes data_;
};

}  // namespace quelm::test
