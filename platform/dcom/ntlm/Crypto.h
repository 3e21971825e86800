#pragma once

// The computations of an NTLM log-on, as MS-NLMP publishes them: password hashes, responses, session keys.
// Pure functions over bytes; what is secret is wiped from the scratch memory before it is given back.
// libcrypto's plain functions and no providers: MD4 and RC4 must work, since every client's log-on needs them, however
// the machine's openssl.cnf is hardened, and a message costs no look-up and no allocation.

#include <openssl/md5.h>
#include <openssl/rc4.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "dcom/ntlm/Messages.h"
#include "dcom/ntlm/ServerContext.h"

namespace quelm::dcom::ntlm {

using Key = std::array<std::uint8_t, 16>;

// The end of the connection that sends a message; each direction has keys of its own.
enum class Side { client, server };

// HMAC-MD5 under one key, which is worked in once for all messages.
class HmacMd5 {
 public:
    explicit HmacMd5(const Key& key);
    ~HmacMd5();
    HmacMd5(const HmacMd5&) = delete;
    HmacMd5& operator=(const HmacMd5&) = delete;

    Key operator()(std::initializer_list<Bytes> parts) const;

 private:
    MD5_CTX inner_;
    MD5_CTX outer_;
};

// A running cipher. A copy goes on from the same place.
class Rc4 {
 public:
    explicit Rc4(const Key& key);
    ~Rc4();
    Rc4(const Rc4&) = default;
    Rc4& operator=(const Rc4&) = default;

    // Encrypts or decrypts in place.
    void apply(std::span<std::uint8_t> data);

 private:
    RC4_KEY state_;
};

Key md4(Bytes data);
Key md5(std::initializer_list<Bytes> parts);
Key hmacMd5(const Key& key, std::initializer_list<Bytes> parts);
Key rc4(const Key& key, const Key& block);
// True when both are the same; takes the same time wherever they differ.
bool sameSecret(Bytes left, Bytes right);
void wipe(std::span<std::uint8_t> secret);
void wipe(std::string& secret);

// The NT hash of a password in UTF-8.
NtHash ntHash(std::string_view password);
// The same as 32 hexadecimal digits, for a line of the accounts file.
std::string ntHashText(std::string_view password);

// NTOWFv2: the key of NTLMv2 responses. The names stand as in the client's message.
Key responseKeyV2(const NtHash& hash, std::u16string_view user, std::u16string_view domain);
// NTProofStr: what the first 16 bytes of an NTLMv2 response must be. clientData is the rest of the response.
Key proofV2(const Key& responseKey, const Nonce& serverChallenge, Bytes clientData);
Key sessionBaseKeyV2(const Key& responseKey, Bytes proof);

// The response of NTLMv1 with extended session security, and the key exchange key that goes with it.
std::array<std::uint8_t, 24> responseV1Ess(const NtHash& hash, const Nonce& serverChallenge, Bytes clientNonce);
Key keyExchangeKeyV1Ess(const NtHash& hash, const Nonce& serverChallenge, Bytes clientNonce);

// Keys of the messages that side sends, with extended session security. The flags choose 128, 56 or 40 bits.
Key signKey(const Key& exportedSessionKey, Side side);
Key sealKey(const Key& exportedSessionKey, std::uint32_t negotiatedFlags, Side side);

}  // namespace quelm::dcom::ntlm
