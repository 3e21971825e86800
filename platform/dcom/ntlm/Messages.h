#pragma once

// The three NTLM messages as bytes, NEGOTIATE (1), CHALLENGE (2) and AUTHENTICATE (3), as either end reads and writes
// them. Nothing that a message says about its own sizes is believed unchecked.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quelm::dcom::ntlm {

using Bytes = std::span<const std::uint8_t>;
using Nonce = std::array<std::uint8_t, 8>;

namespace flags {
inline constexpr std::uint32_t unicode = 0x00000001;
inline constexpr std::uint32_t requestTarget = 0x00000004;
inline constexpr std::uint32_t sign = 0x00000010;
inline constexpr std::uint32_t seal = 0x00000020;
inline constexpr std::uint32_t ntlm = 0x00000200;
inline constexpr std::uint32_t oemDomainSupplied = 0x00001000;
inline constexpr std::uint32_t oemWorkstationSupplied = 0x00002000;
inline constexpr std::uint32_t alwaysSign = 0x00008000;
inline constexpr std::uint32_t targetTypeServer = 0x00020000;
inline constexpr std::uint32_t extendedSessionSecurity = 0x00080000;
inline constexpr std::uint32_t targetInfo = 0x00800000;
inline constexpr std::uint32_t version = 0x02000000;
inline constexpr std::uint32_t key128 = 0x20000000;
inline constexpr std::uint32_t keyExchange = 0x40000000;
inline constexpr std::uint32_t key56 = 0x80000000;
}  // namespace flags

enum class AvId : std::uint16_t {
    endOfList = 0,
    nbComputerName = 1,
    nbDomainName = 2,
    dnsComputerName = 3,
    dnsDomainName = 4,
    flags = 6,
    timestamp = 7,
};

// Set in the value of AvId::flags when the AUTHENTICATE message carries a MIC.
inline constexpr std::uint32_t avFlagMicPresent = 0x00000002;

struct AvPair {
    AvId id;
    Bytes value;
};

// 1, 2 or 3 when the token begins as an NTLM message of that type, else 0.
int messageType(Bytes token);

// The flags that the client asks for; nothing when the message is malformed.
std::optional<std::uint32_t> parseNegotiate(Bytes message);

struct ChallengeMessage {
    std::uint32_t flags = 0;
    Nonce challenge{};
    std::string computerName;
    std::string domainName;
    std::string dnsComputerName;  // empty: not told
    std::string dnsDomainName;    // empty: not told
    std::uint64_t fileTime = 0;   // UTC, 100 ns since 1601
};
std::vector<std::uint8_t> encodeChallenge(const ChallengeMessage& message);

// What a client reads of a CHALLENGE; a view into the message, which must outlive it.
struct OfferedChallenge {
    std::uint32_t flags = 0;
    Nonce challenge{};
    Bytes targetInfo;  // AV pairs, the end of the list included; empty when there are none
};
std::optional<OfferedChallenge> parseChallenge(Bytes message);

// The client's first message, without names.
std::vector<std::uint8_t> encodeNegotiate(std::uint32_t flags);

// The client's answer. The names are UTF-16.
struct AnswerMessage {
    std::uint32_t flags = 0;
    Bytes lmResponse;
    Bytes ntResponse;
    Bytes encryptedSessionKey;
    std::u16string_view domain;
    std::u16string_view user;
    std::u16string_view workstation;
};
// With room for a MIC, at first all zeros.
std::vector<std::uint8_t> encodeAuthenticate(const AnswerMessage& message);

// Views into the message that it was read from, which must outlive it.
struct AuthenticateMessage {
    std::uint32_t flags = 0;
    Bytes lmResponse;
    Bytes ntResponse;
    Bytes encryptedSessionKey;
    std::u16string domain;
    std::u16string user;
    std::u16string workstation;
};
// Names longer than 256 characters count as malformed: no account has one, and they would swamp the log.
std::optional<AuthenticateMessage> parseAuthenticate(Bytes message);

// Where a MIC stands in an AUTHENTICATE message that has one.
inline constexpr std::size_t micOffset = 72;
inline constexpr std::size_t micSize = 16;

// Reads pairs up to the end-of-list mark, which must be there unless the list is empty.
std::optional<std::vector<AvPair>> parseAvPairs(Bytes list);
void appendAvPair(std::vector<std::uint8_t>& out, AvId id, Bytes value);

// The client's AvId::flags of an NTLMv2 response, 0 when it sends none; nothing when its list is malformed.
std::optional<std::uint32_t> clientAvFlags(Bytes ntlmV2Response);

std::vector<std::uint8_t> littleEndian(std::u16string_view text);

}  // namespace quelm::dcom::ntlm
