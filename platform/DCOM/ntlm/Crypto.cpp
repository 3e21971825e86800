#include "DCOM/ntlm/Crypto.h"

#include <fmt/format.h>
#include <nettle/arcfour.h>
#include <nettle/des.h>
#include <nettle/hmac.h>
#include <nettle/md4.h>
#include <nettle/md5.h>
#include <nettle/memops.h>
#include <string.h>

#include <algorithm>

#include "Shared Types/Text.h"
#include "Shared Types/Utf.h"

namespace quelm::dcom::ntlm {

namespace {

// A context of the cipher library that leaves no key behind.
template <class Context>
struct Wiped : Context {
    Wiped() : Context() {}
    ~Wiped() { explicit_bzero(static_cast<Context*>(this), sizeof(Context)); }
    Wiped(const Wiped&) = delete;
    Wiped& operator=(const Wiped&) = delete;
};

// One third of a DES response: seven bytes of key, spread over eight with room for the parity bits.
void encryptThird(const std::uint8_t* key7, const std::uint8_t* block, std::uint8_t* out) {
    std::uint64_t bits = 0;
    for (int i = 0; i < 7; ++i) {
        bits = bits << 8 | key7[i];
    }
    std::array<std::uint8_t, DES_KEY_SIZE> key{};
    for (int i = 0; i < 8; ++i) {
        key[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>((bits >> (49 - 7 * i) & 0x7F) << 1);
    }
    Wiped<des_ctx> context;
    des_set_key(&context, key.data());
    des_encrypt(&context, DES_BLOCK_SIZE, out, block);
    wipe(key);
}

// The published constants end with a NUL that counts.
template <std::size_t Size>
Bytes constant(const char (&text)[Size]) {
    return {reinterpret_cast<const std::uint8_t*>(text), Size};
}

}  // namespace

Key md4(Bytes data) {
    Wiped<md4_ctx> context;
    Key digest;
    md4_init(&context);
    md4_update(&context, data.size(), data.data());
    md4_digest(&context, digest.size(), digest.data());
    return digest;
}

Key md5(std::initializer_list<Bytes> parts) {
    Wiped<md5_ctx> context;
    Key digest;
    md5_init(&context);
    for (const Bytes part : parts) {
        md5_update(&context, part.size(), part.data());
    }
    md5_digest(&context, digest.size(), digest.data());
    return digest;
}

Key hmacMd5(Bytes key, std::initializer_list<Bytes> parts) {
    Wiped<hmac_md5_ctx> context;
    Key digest;
    hmac_md5_set_key(&context, key.size(), key.data());
    for (const Bytes part : parts) {
        hmac_md5_update(&context, part.size(), part.data());
    }
    hmac_md5_digest(&context, digest.size(), digest.data());
    return digest;
}

Key rc4(const Key& key, const Key& block) {
    Wiped<arcfour_ctx> context;
    Key out;
    arcfour_set_key(&context, key.size(), key.data());
    arcfour_crypt(&context, block.size(), out.data(), block.data());
    return out;
}

bool sameSecret(Bytes left, Bytes right) {
    return left.size() == right.size() && memeql_sec(left.data(), right.data(), left.size()) != 0;
}

void wipe(std::span<std::uint8_t> secret) {
    if (!secret.empty()) {
        explicit_bzero(secret.data(), secret.size());
    }
}

void wipe(std::string& secret) {
    explicit_bzero(secret.data(), secret.size());
    secret.clear();
}

NtHash ntHash(std::string_view password) {
    std::u16string units = utf8ToUtf16(password);
    std::vector<std::uint8_t> bytes = littleEndian(units);
    const NtHash hash = md4(bytes);
    wipe(bytes);
    explicit_bzero(units.data(), units.size() * sizeof(char16_t));
    return hash;
}

std::string ntHashText(std::string_view password) {
    std::string text;
    for (const std::uint8_t byte : ntHash(password)) {
        text += fmt::format("{:02x}", byte);
    }
    return text;
}

Key responseKeyV2(const NtHash& hash, std::u16string_view user, std::u16string_view domain) {
    const auto upperUser = littleEndian(utf8ToUtf16(toUpperCase(utf16ToUtf8(user))));
    return hmacMd5(hash, {upperUser, littleEndian(domain)});
}

Key proofV2(const Key& responseKey, const Nonce& serverChallenge, Bytes clientData) {
    return hmacMd5(responseKey, {serverChallenge, clientData});
}

Key sessionBaseKeyV2(const Key& responseKey, Bytes proof) {
    return hmacMd5(responseKey, {proof});
}

std::array<std::uint8_t, 24> responseV1Ess(const NtHash& hash, const Nonce& serverChallenge, Bytes clientNonce) {
    const Key session = md5({serverChallenge, clientNonce});
    std::array<std::uint8_t, 21> padded{};
    std::copy(hash.begin(), hash.end(), padded.begin());
    std::array<std::uint8_t, 24> response;
    for (std::size_t third = 0; third < 3; ++third) {
        encryptThird(padded.data() + 7 * third, session.data(), response.data() + 8 * third);
    }
    wipe(padded);
    return response;
}

Key keyExchangeKeyV1Ess(const NtHash& hash, const Nonce& serverChallenge, Bytes clientNonce) {
    return hmacMd5(md4(hash), {serverChallenge, clientNonce});
}

Key signKey(const Key& exportedSessionKey, Side side) {
    return md5({exportedSessionKey, side == Side::client
                                        ? constant("session key to client-to-server signing key magic constant")
                                        : constant("session key to server-to-client signing key magic constant")});
}

Key sealKey(const Key& exportedSessionKey, std::uint32_t negotiatedFlags, Side side) {
    const std::size_t used = (negotiatedFlags & flags::key128) != 0  ? 16
                             : (negotiatedFlags & flags::key56) != 0 ? 7
                                                                     : 5;
    return md5({Bytes(exportedSessionKey).first(used),
                side == Side::client ? constant("session key to client-to-server sealing key magic constant")
                                     : constant("session key to server-to-client sealing key magic constant")});
}

}  // namespace quelm::dcom::ntlm
