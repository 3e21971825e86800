#pragma once

// The computations of an NTLM log-on, as MS-NLMP publishes them: password hashes, responses, session keys.
// Pure functions over bytes; what is secret is wiped from the scratch memory before it is given back.

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "DCOM/ntlm/Messages.h"
#include "DCOM/ntlm/ServerContext.h"

namespace quelm::dcom::ntlm {

using Key = std::array<std::uint8_t, 16>;

// The end of the connection that sends a message; each direction has keys of its own.
enum class Side { client, server };

Key md4(Bytes data);
Key md5(std::initializer_list<Bytes> parts);
Key hmacMd5(Bytes key, std::initializer_list<Bytes> parts);
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
