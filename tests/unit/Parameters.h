#pragma once

// The parameters of a call as a client marshals them: every number stands on a multiple of its size.

#include <bit>

#include "Bytes.h"
#include "Codes.h"
#include "base/Uuid.h"

namespace quelm::test {

class Parameters {
 public:
    Parameters& u16(std::uint16_t value) { return number(value, 2); }
    Parameters& u32(std::uint64_t value) { return number(value, 4); }
    Parameters& u64(std::uint64_t value) { return number(value, 8); }
    Parameters& hresult(HResult value) { return u32(fmt::underlying(value)); }
    Parameters& f32(float value) { return u32(std::bit_cast<std::uint32_t>(value)); }
    Parameters& uuid(const Uuid& value) { return align(4).add(value.bytes); }
    // A wide string of ASCII; scripted clients leave out its NUL.
    Parameters& text(std::string_view ascii, bool withNul = true) {
        const std::size_t size = ascii.size() + (withNul ? 1 : 0);
        u32(size).u32(0).u32(size);
        for (std::size_t i = 0; i < size; ++i) {
            u16(i < ascii.size() ? static_cast<std::uint8_t>(ascii[i]) : 0);
        }
        return *this;
    }
    // Conformance and values.
    Parameters& array(std::span<const std::uint32_t> values) {
        u32(values.size());
        for (const std::uint32_t value : values) {
            u32(value);
        }
        return *this;
    }
    Parameters& array(std::span<const Uuid> values) {
        u32(values.size());
        for (const Uuid& value : values) {
            uuid(value);
        }
        return *this;
    }
    // Count, conformance and values.
    Parameters& counted(std::span<const std::uint32_t> values) { return u32(values.size()).array(values); }
    Parameters& hex(std::string_view text) { return add(fromHex(text)); }
    Parameters& add(std::span<const std::uint8_t> more) {
        bytes_.insert(bytes_.end(), more.begin(), more.end());
        return *this;
    }
    Parameters& align(std::size_t size, std::uint8_t with = 0) {
        bytes_.resize((bytes_.size() + size - 1) / size * size, with);
        return *this;
    }
    const Bytes& bytes() const { return bytes_; }
    operator std::span<const std::uint8_t>() const { return bytes_; }

 private:
    Parameters& number(std::uint64_t value, std::size_t size) {
        align(size);
        for (std::size_t i = 0; i < size; ++i) {
            bytes_.push_back(static_cast<std::uint8_t>(value >> 8 * i));
        }
        return *this;
    }

    Bytes bytes_;
};

}  // namespace quelm::test
