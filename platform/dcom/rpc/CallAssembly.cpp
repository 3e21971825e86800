#include "dcom/rpc/CallAssembly.h"

#include <algorithm>

namespace quelm::dcom::rpc {

CallAssembly::Step CallAssembly::take(std::uint8_t flags, const Key& key) {
    const bool first = (flags & flagFirst) != 0;
    if (first == active_) {
        return Step::OutOfOrder;
    }
    if (!first) {
        return key == key_ ? Step::Continued : Step::Mixed;
    }
    active_ = true;
    dropped_ = false;
    key_ = key;
    stub_.clear();
    return Step::Begun;
}

bool CallAssembly::add(std::span<const std::uint8_t> stub, std::size_t limit) {
    if (stub.size() > limit - std::min(limit, stub_.size())) {
        return false;
    }
    stub_.insert(stub_.end(), stub.begin(), stub.end());
    return true;
}

void CallAssembly::orphan(std::uint32_t callId) {
    if (active_ && key_.callId == callId) {
        end();
        release();
    }
}

void CallAssembly::release() {
    // A large call is rare; its memory is not kept for the next one.
    constexpr std::size_t kept = 256U << 10U;
    stub_.clear();
    if (stub_.capacity() > kept) {
        stub_ = {};
    }
}

}  // namespace quelm::dcom::rpc
