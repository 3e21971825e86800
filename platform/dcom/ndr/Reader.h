#pragma once

// Reads the NDR form of call parameters (little endian). The reader latches its first fault:
// from then on every read gives zero or nothing, and one look at good() at the end tells whether
// all that was read really stood there. No read ever leaves the buffer, and no count is believed
// before it has been held against what is left of it.

#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "base/HResult.h"
#include "base/Uuid.h"

namespace quelm::dcom::ndr {

class Reader {
 public:
    // The buffer must outlive the reader. Alignment is counted from the buffer's first byte.
    explicit Reader(std::span<const std::uint8_t> data) : data_(data) {}

    bool good() const { return good_; }
    void fail() {
        good_ = false;
        position_ = data_.size();
    }
    std::size_t position() const { return position_; }
    std::size_t remaining() const { return data_.size() - position_; }

    // Skips to the next multiple of alignment (1, 2, 4 or 8).
    void align(std::size_t alignment) {
        const std::size_t target = (position_ + alignment - 1) & ~(alignment - 1);
        if (target > data_.size()) {
            fail();
        } else {
            position_ = target;
        }
    }

    std::uint8_t u8() { return scalar<std::uint8_t>(); }
    std::uint16_t u16() { return scalar<std::uint16_t>(); }
    std::uint32_t u32() { return scalar<std::uint32_t>(); }
    std::uint64_t u64() { return scalar<std::uint64_t>(); }
    std::int16_t i16() { return static_cast<std::int16_t>(u16()); }
    std::int32_t i32() { return static_cast<std::int32_t>(u32()); }
    std::int64_t i64() { return static_cast<std::int64_t>(u64()); }
    float f32() { return scalar<float>(); }
    double f64() { return scalar<double>(); }
    HResult hresult() { return HResult{u32()}; }

    // 16 raw bytes, aligned to 4 as a structure with a 32-bit first member.
    Uuid uuid() {
        align(4);
        Uuid result;
        const auto raw = bytes(16);
        if (raw.size() == 16) {
            std::memcpy(result.bytes.data(), raw.data(), 16);
        }
        return result;
    }

    // A view of the next count bytes, without alignment; empty, with the fault latched, when they are not there.
    std::span<const std::uint8_t> bytes(std::size_t count) {
        if (count > remaining()) {
            fail();
            return {};
        }
        const auto view = data_.subspan(position_, count);
        position_ += count;
        return view;
    }

    // A 32-bit element count (a conformance or an actual count). Latches the fault and gives 0 when the buffer
    // cannot hold that many elements of at least elementSize bytes, so that it is safe to allocate by.
    std::uint32_t count(std::size_t elementSize) {
        const std::uint32_t value = u32();
        if (elementSize != 0 && value > remaining() / elementSize) {
            fail();
            return 0;
        }
        return value;
    }

    // A unique pointer's referent id: 0 is the null pointer, every other value a pointer of its own.
    bool pointer() { return u32() != 0; }

    // A conformant varying string of UTF-16 units, given as UTF-8. A terminating NUL is dropped, a missing one
    // tolerated (not every client sends it); text after an embedded NUL is dropped as C code would.
    std::string wideString();

 private:
    template <class T>
    T scalar() {
        align(sizeof(T));
        T value{};
        if (sizeof(T) > remaining()) {
            fail();
            return value;
        }
        std::memcpy(&value, data_.data() + position_, sizeof(T));
        position_ += sizeof(T);
        return value;
    }

    std::span<const std::uint8_t> data_;
    std::size_t position_ = 0;
    bool good_ = true;
};

}  // namespace quelm::dcom::ndr
