#include "DCOM/ntlm/MessageSecurity.h"

#include <string.h>

#include <algorithm>

namespace quelm::dcom::ntlm {

namespace {

constexpr std::size_t checksumSize = 8;

void store32(std::uint8_t* at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<std::uint8_t>(value >> 8 * i);
    }
}

}  // namespace

MessageSecurity::MessageSecurity(const Key& exportedSessionKey, std::uint32_t negotiatedFlags, Side own)
    : encryptsChecksum_((negotiatedFlags & flags::keyExchange) != 0) {
    const Side peer = own == Side::server ? Side::client : Side::server;
    start(outgoing_, exportedSessionKey, negotiatedFlags, own);
    start(incoming_, exportedSessionKey, negotiatedFlags, peer);
}

MessageSecurity::~MessageSecurity() {
    explicit_bzero(&outgoing_, sizeof outgoing_);
    explicit_bzero(&incoming_, sizeof incoming_);
}

void MessageSecurity::start(Direction& direction, const Key& exportedSessionKey, std::uint32_t negotiatedFlags,
                            Side sender) {
    Key mac = signKey(exportedSessionKey, sender);
    Key cipher = sealKey(exportedSessionKey, negotiatedFlags, sender);
    hmac_md5_set_key(&direction.mac, mac.size(), mac.data());
    arcfour_set_key(&direction.cipher, cipher.size(), cipher.data());
    wipe(mac);
    wipe(cipher);
}

void MessageSecurity::sign(Bytes message, Signature& signature) {
    signature = finish(outgoing_, checksum(outgoing_, message));
}

void MessageSecurity::seal(Bytes message, std::span<std::uint8_t> sealed, Signature& signature) {
    const Key clear = checksum(outgoing_, message);
    arcfour_crypt(&outgoing_.cipher, sealed.size(), sealed.data(), sealed.data());
    signature = finish(outgoing_, clear);
}

bool MessageSecurity::verify(Bytes message, Bytes signature) {
    return sameSecret(finish(incoming_, checksum(incoming_, message)), signature);
}

bool MessageSecurity::unseal(Bytes message, std::span<std::uint8_t> sealed, Bytes signature) {
    arcfour_crypt(&incoming_.cipher, sealed.size(), sealed.data(), sealed.data());
    return verify(message, signature);
}

// Both signatures take their number, but the ciphers begin anew behind them: so the Windows clients have it.
bool MessageSecurity::exchangeSignatures(Bytes text, Bytes peerSignature, Signature& signature) {
    std::array<arcfour_ctx, 2> fresh{outgoing_.cipher, incoming_.cipher};
    const bool good = verify(text, peerSignature);
    if (good) {
        sign(text, signature);
    }
    outgoing_.cipher = fresh[0];
    incoming_.cipher = fresh[1];
    explicit_bzero(fresh.data(), sizeof fresh);
    return good;
}

Key MessageSecurity::checksum(Direction& direction, Bytes message) {
    std::array<std::uint8_t, 4> sequence;
    store32(sequence.data(), direction.sequence);
    Key digest;
    hmac_md5_update(&direction.mac, sequence.size(), sequence.data());
    hmac_md5_update(&direction.mac, message.size(), message.data());
    hmac_md5_digest(&direction.mac, digest.size(), digest.data());
    return digest;
}

// Version 1, eight bytes of checksum, the message's number. The checksum takes its turn in the cipher stream after
// the message's own text.
MessageSecurity::Signature MessageSecurity::finish(Direction& direction, const Key& checksum) const {
    Signature signature{};
    store32(signature.data(), 1);
    std::copy_n(checksum.begin(), checksumSize, signature.begin() + 4);
    if (encryptsChecksum_) {
        arcfour_crypt(&direction.cipher, checksumSize, signature.data() + 4, signature.data() + 4);
    }
    store32(signature.data() + 12, direction.sequence++);
    return signature;
}

}  // namespace quelm::dcom::ntlm
