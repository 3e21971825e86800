#pragma once

// The bytes that a connection has received and not yet carried out: one buffer in which each message is handled where
// it lies.

#include <cstdint>
#include <span>
#include <vector>

namespace quelm::dcom::rpc {

class InputBuffer {
 public:
    // Bytes that it has room for, from the next time on that it is empty; at least a largest message.
    explicit InputBuffer(std::size_t size) : size_(size) {}
    void setSize(std::size_t size) { size_ = size; }

    // Where received bytes belong, and that so many of them came. Empty when the buffer is full.
    std::span<std::uint8_t> space();
    void filled(std::size_t count) { end_ += count; }
    // The message that has begun is so long: makes room for it.
    void expect(std::size_t messageSize);

    std::span<std::uint8_t> bytes() { return std::span(bytes_).subspan(start_, end_ - start_); }
    std::size_t count() const { return end_ - start_; }
    void take(std::size_t count) { start_ += count; }
    void clear() { start_ = end_ = 0; }
    std::size_t bytesHeld() const { return bytes_.capacity(); }

 private:
    void moveToFront();

    std::vector<std::uint8_t> bytes_;
    std::size_t size_;
    std::size_t start_ = 0;
    std::size_t end_ = 0;
};

}  // namespace quelm::dcom::rpc
