#pragma once

// Elements of a DER encoding, as log-on messages of several kinds are made of them: takes them apart without believing
// any length.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace quelm::dcom::der {

using Bytes = std::span<const std::uint8_t>;

inline constexpr std::uint8_t octets = 0x04;
inline constexpr std::uint8_t objectId = 0x06;
inline constexpr std::uint8_t enumerated = 0x0A;
inline constexpr std::uint8_t sequence = 0x30;
inline constexpr std::uint8_t application = 0x60;  // number 0; the others follow

constexpr std::uint8_t field(unsigned number) {
    return static_cast<std::uint8_t>(0xA0 + number);
}

struct Element {
    std::uint8_t tag = 0;
    Bytes content;
};

// Takes the first element off the front of in; nothing when it is not whole.
std::optional<Element> take(Bytes& in);

// The content of the one element of this kind at the front; nothing when something else stands there.
std::optional<Bytes> enter(Bytes in, std::uint8_t tag);

// The content of the first field of this number in a sequence's content; nothing when there is none.
std::optional<Bytes> fieldOf(Bytes fields, unsigned number);

}  // namespace quelm::dcom::der
