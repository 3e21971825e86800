#include "dcom/ntlm/Crypto.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/des.h>
#include <openssl/md4.h>
#include <string.h>

#include <algorithm>
#include <functional>

#include "base/Text.h"
#include "base/Utf.h"

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
    DES_cblock key;
    for (int i = 0; i < 8; ++i) {
        key[i] = static_cast<std::uint8_t>((bits >> (49 - 7 * i) & 0x7F) << 1);
    }
    DES_cblock clear;
    std::copy_n(block, sizeof clear, clear);
    DES_cblock encrypted;
    Wiped<DES_key_schedule> schedule;
    DES_set_key_unchecked(&key, &schedule);
    DES_ecb_encrypt(&clear, &encrypted, &schedule, DES_ENCRYPT);
    std::copy_n(encrypted, sizeof encrypted, out);
    wipe(key);
}

Key finishMd5(MD5_CTX& context, std::initializer_list<Bytes> parts) {
    Key digest;
    for (const Bytes part : parts) {
        MD5_Update(&context, part.data(), part.size());
    }
    MD5_Final(digest.data(), &context);
    return digest;
}

// The published constants end with a NUL that counts.
template <std::size_t Size>
Bytes constant(const char (&text)[Size]) {
    return {reinterpret_cast<const std::uint8_t*>(text), Size};
}

}  // namespace

Key md4(Bytes data) {
    Wiped<MD4_CTX> context;
    Key digest;
    MD4_Init(&context);
    MD4_Update(&context, data.data(), data.size());
    MD4_Final(digest.data(), &context);
    return digest;
}

Key md5(std::initializer_list<Bytes> parts) {
    Wiped<MD5_CTX> context;
    MD5_Init(&context);
    return finishMd5(context, parts);
}

HmacMd5::HmacMd5(const Key& key) {
    const auto begin = [&key](MD5_CTX& context, std::uint8_t pad) {
        std::array<std::uint8_t, MD5_CBLOCK> block;
        block.fill(pad);
        std::transform(key.begin(), key.end(), block.begin(), block.begin(), std::bit_xor<std::uint8_t>());
        MD5_Init(&context);
        MD5_Update(&context, block.data(), block.size());
        wipe(block);
    };
    begin(inner_, 0x36);
    begin(outer_, 0x5C);
}

HmacMd5::~HmacMd5() {
    explicit_bzero(&inner_, sizeof inner_);
    explicit_bzero(&outer_, sizeof outer_);
}

Key HmacMd5::operator()(std::initializer_list<Bytes> parts) const {
    MD5_CTX context = inner_;
    const Key digest = finishMd5(context, parts);
    context = outer_;
    return finishMd5(context, {digest});
}

Key hmacMd5(const Key& key, std::initializer_list<Bytes> parts) {
    return HmacMd5(key)(parts);
}

Rc4::Rc4(const Key& key) {
    RC4_set_key(&state_, static_cast<int>(key.size()), key.data());
}

Rc4::~Rc4() {
    explicit_bzero(&state_, sizeof state_);
}

void Rc4::apply(std::span<std::uint8_t> data) {
    RC4(&state_, data.size(), data.data(), data.data());
}

Key rc4(const Key& key, const Key& block) {
    Key out = block;
    Rc4(key).apply(out);
    return out;
}

bool sameSecret(Bytes left, Bytes right) {
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
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
