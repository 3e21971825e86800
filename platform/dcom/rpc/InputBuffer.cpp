#include "dcom/rpc/InputBuffer.h"

#include <cstring>

#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

std::span<std::uint8_t> InputBuffer::space() {
    if (start_ == end_) {
        clear();
        if (bytes_.size() != size_) {
            bytes_ = std::vector<std::uint8_t>(size_);
        }
    } else if (bytes_.size() - end_ < ownMaxFragment) {
        moveToFront();
    }
    return std::span(bytes_).subspan(end_);
}

void InputBuffer::expect(std::size_t messageSize) {
    if (bytes_.size() < messageSize) {
        moveToFront();
        bytes_.resize(messageSize);
    }
}

void InputBuffer::moveToFront() {
    std::memmove(bytes_.data(), bytes_.data() + start_, end_ - start_);
    end_ -= start_;
    start_ = 0;
}

}  // namespace quelm::dcom::rpc
