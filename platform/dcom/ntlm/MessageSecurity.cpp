#include "dcom/ntlm/MessageSecurity.h"

#include <algorithm>

namespace quelm::dcom::ntlm {

namespace {

constexpr std::size_t checksumSize = 8;

void store32(std::uint8_t* at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<std::uint8_t>(value >> 8 * i);
    }
}

Side opposite(Side side) {
    return side == Side::server ? Side::client : Side::server;
}

}  // namespace

MessageSecurity::MessageSecurity(const Key& exportedSessionKey, std::uint32_t negotiatedFlags, Side own)
    : encryptsChecksum_((negotiatedFlags & flags::keyExchange) != 0),
      outgoing_(signKey(exportedSessionKey, own), sealKey(exportedSessionKey, negotiatedFlags, own)),
      incoming_(signKey(exportedSessionKey, opposite(own)),
                sealKey(exportedSessionKey, negotiatedFlags, opposite(own))) {}

MessageSecurity::Direction::Direction(Key signing, Key sealing) : mac(signing), cipher(sealing) {
    wipe(signing);
    wipe(sealing);
}

void MessageSecurity::sign(Bytes message, Signature& signature) {
    signature = finish(outgoing_, outgoing_.checksum(message));
}

void MessageSecurity::seal(Bytes message, std::span<std::uint8_t> sealed, Signature& signature) {
    const Key clear = outgoing_.checksum(message);
    outgoing_.cipher.apply(sealed);
    signature = finish(outgoing_, clear);
}

bool MessageSecurity::verify(Bytes message, Bytes signature) {
    return sameSecret(finish(incoming_, incoming_.checksum(message)), signature);
}

bool MessageSecurity::unseal(Bytes message, std::span<std::uint8_t> sealed, Bytes signature) {
    incoming_.cipher.apply(sealed);
    return verify(message, signature);
}

// A signature takes its number, but the cipher begins anew behind it: so the Windows clients have it.
void MessageSecurity::signNegotiation(Bytes text, Signature& signature) {
    const Rc4 fresh = outgoing_.cipher;
    sign(text, signature);
    outgoing_.cipher = fresh;
}

bool MessageSecurity::verifyNegotiation(Bytes text, Bytes peerSignature) {
    const Rc4 fresh = incoming_.cipher;
    const bool good = verify(text, peerSignature);
    incoming_.cipher = fresh;
    return good;
}

Key MessageSecurity::Direction::checksum(Bytes message) const {
    std::array<std::uint8_t, 4> number;
    store32(number.data(), sequence);
    return mac({number, message});
}

// Version 1, eight bytes of checksum, the message's number. The checksum takes its turn in the cipher stream after
// the message's own text.
MessageSecurity::Signature MessageSecurity::finish(Direction& direction, const Key& checksum) const {
    Signature signature{};
    store32(signature.data(), 1);
    std::copy_n(checksum.begin(), checksumSize, signature.begin() + 4);
    if (encryptsChecksum_) {
        direction.cipher.apply(std::span(signature).subspan(4, checksumSize));
    }
    store32(signature.data() + 12, direction.sequence++);
    return signature;
}

}  // namespace quelm::dcom::ntlm
