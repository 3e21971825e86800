#pragma once

// Writes the NDR form of call results (little endian) to the end of a byte buffer that the caller keeps
// and reuses, so that a steady load allocates nothing. Alignment is counted from the place where the
// buffer ended when the writer was made.

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "base/HResult.h"
#include "base/Uuid.h"

namespace quelm::dcom::ndr {

class Writer {
 public:
    explicit Writer(std::vector<std::uint8_t>& out) : out_(out), origin_(out.size()) {}

    // Bytes written since the origin.
    std::size_t position() const { return out_.size() - origin_; }
    std::span<const std::uint8_t> written() const { return std::span<const std::uint8_t>(out_).subspan(origin_); }
    std::vector<std::uint8_t>& buffer() { return out_; }

    // Pads with zeros to the next multiple of alignment (1, 2, 4 or 8).
    void align(std::size_t alignment) {
        const std::size_t target = (position() + alignment - 1) & ~(alignment - 1);
        out_.resize(origin_ + target);
    }

    void u8(std::uint8_t value) { scalar(value); }
    void u16(std::uint16_t value) { scalar(value); }
    void u32(std::uint32_t value) { scalar(value); }
    void u64(std::uint64_t value) { scalar(value); }
    void i16(std::int16_t value) { scalar(value); }
    void i32(std::int32_t value) { scalar(value); }
    void i64(std::int64_t value) { scalar(value); }
    void f32(float value) { scalar(value); }
    void f64(double value) { scalar(value); }
    void hresult(HResult value) { scalar(value); }

    void uuid(const Uuid& value) {
        align(4);
        bytes(value.bytes);
    }

    // Raw bytes, without alignment.
    void bytes(std::span<const std::uint8_t> data) { out_.insert(out_.end(), data.begin(), data.end()); }

    // A non-null unique pointer: a referent id that no other pointer of this reply has.
    void pointer() { u32(nextReferent_ += 4); }
    void nullPointer() { u32(0); }

    // A conformant varying string of UTF-16 units with its NUL, from UTF-8.
    void wideString(std::string_view utf8);

    // Overwrites a 32-bit field written before, at a position() of then.
    void patchU32(std::size_t position, std::uint32_t value) {
        std::memcpy(out_.data() + origin_ + position, &value, sizeof value);
    }

    // Makes room for size more bytes and gives the place to fill them in (bulk writing of arrays).
    std::uint8_t* extend(std::size_t size) {
        const std::size_t at = out_.size();
        out_.resize(at + size);
        return out_.data() + at;
    }

 private:
    template <class T>
    void scalar(T value) {
        align(sizeof(T));
        const std::size_t at = out_.size();
        out_.resize(at + sizeof(T));
        std::memcpy(out_.data() + at, &value, sizeof(T));
    }

    std::vector<std::uint8_t>& out_;
    std::size_t origin_;
    std::uint32_t nextReferent_ = 0x00020000;
};

}  // namespace quelm::dcom::ndr
