#include "dcom/rpc/MessageGuard.h"

#include <cstring>

namespace quelm::dcom::rpc {

void MessageGuard::protect(std::span<std::uint8_t> message, std::size_t stubOffset, std::size_t padLength) const {
    const auto covered = message.first(message.size() - ntlm::MessageProtection::signatureSize);
    const auto stubAndPad = covered.subspan(stubOffset, covered.size() - stubOffset - trailerSize);
    std::uint8_t* const trailer = covered.data() + covered.size() - trailerSize;
    // Zeros, not what the buffer held before: padding must never show a client the bytes of another reply.
    std::memset(trailer - padLength, 0, padLength);
    putTrailer(trailer, type_, level_, padLength, contextId_);
    ntlm::MessageProtection::Signature signature{};
    if (seals_) {
        keys_.seal(covered, stubAndPad, signature);
    } else {
        keys_.sign(covered, signature);
    }
    std::memcpy(covered.data() + covered.size(), signature.data(), signature.size());
}

bool MessageGuard::unprotect(std::span<std::uint8_t> message, std::size_t stubOffset,
                             const AuthTrailer& trailer) const {
    const auto covered = message.first(trailer.offset + trailerSize);
    if (trailer.token.size() != ntlm::MessageProtection::signatureSize) {
        return false;
    }
    if (seals_) {
        return keys_.unseal(covered, message.subspan(stubOffset, trailer.offset - stubOffset), trailer.token);
    }
    return keys_.verify(covered, trailer.token);
}

}  // namespace quelm::dcom::rpc
