#include "dcom/rpc/MessageGuard.h"

#include <cstring>

namespace quelm::dcom::rpc {

void MessageGuard::protect(std::span<std::uint8_t> message, std::size_t stubOffset, std::size_t padLength) const {
    const auto covered = message.first(message.size() - tokenSize_);
    const auto stubAndPad = covered.subspan(stubOffset, covered.size() - stubOffset - trailerSize);
    std::uint8_t* const trailer = covered.data() + covered.size() - trailerSize;
    // Zeros, not what the buffer held before: padding must never show a client the bytes of another reply.
    std::memset(trailer - padLength, 0, padLength);
    putTrailer(trailer, type_, level_, padLength, contextId_);
    keys_.protect(covered, stubAndPad, seals_, message.last(tokenSize_));
}

bool MessageGuard::unprotect(std::span<std::uint8_t> message, std::size_t stubOffset,
                             const AuthTrailer& trailer) const {
    const auto covered = message.first(trailer.offset + trailerSize);
    return keys_.unprotect(covered, message.subspan(stubOffset, trailer.offset - stubOffset), seals_,
                           message.subspan(covered.size()));
}

}  // namespace quelm::dcom::rpc
