#include "dcom/ntlm/Messages.h"

#include <algorithm>

#include "base/Utf.h"

namespace quelm::dcom::ntlm {

namespace {

constexpr std::array<std::uint8_t, 8> magic = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
constexpr std::size_t negotiateFixedSize = 16;     // magic, type, flags; older clients stop here
constexpr std::size_t challengeFixedSize = 56;     // up to and including the version
constexpr std::size_t authenticateFixedSize = 64;  // up to and including the flags
constexpr std::size_t leastChallengeSize = 48;     // up to and including the target info; older servers stop here
constexpr std::size_t ntlmV2FixedSize = 16 + 28;   // proof and the client's data before its AV pairs
constexpr std::size_t longestName = 256;
// Version 6.1, build 0, NTLM revision 15: the other end only logs it.
constexpr std::uint64_t versionField = 0x0F00000000000106;

std::uint16_t load16(Bytes data, std::size_t at) {
    return static_cast<std::uint16_t>(data[at] | data[at + 1] << 8);
}

std::uint32_t load32(Bytes data, std::size_t at) {
    return load16(data, at) | static_cast<std::uint32_t>(load16(data, at + 2)) << 16;
}

// The payload that the length and offset at the given place describe. An empty one may carry any offset (some
// clients write all ones there); any other must lie between the fixed part and the end.
std::optional<Bytes> payload(Bytes message, std::size_t at, std::size_t fixedSize) {
    const std::size_t length = load16(message, at);
    const std::size_t offset = load32(message, at + 4);
    if (length == 0) {
        return Bytes{};
    }
    if (offset < fixedSize || offset > message.size() || length > message.size() - offset) {
        return std::nullopt;
    }
    return message.subspan(offset, length);
}

std::optional<std::u16string> nameFrom(std::optional<Bytes> raw) {
    if (!raw || raw->size() % 2 != 0 || raw->size() / 2 > longestName) {
        return std::nullopt;
    }
    std::u16string name;
    for (std::size_t i = 0; i < raw->size(); i += 2) {
        name += static_cast<char16_t>(load16(*raw, i));
    }
    return name;
}

void append(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> 8 * i));
    }
}

void appendPayload(std::vector<std::uint8_t>& out, std::size_t length, std::size_t offset) {
    append(out, length, 2);
    append(out, length, 2);
    append(out, offset, 4);
}

void appendName(std::vector<std::uint8_t>& out, AvId id, std::string_view name) {
    appendAvPair(out, id, littleEndian(utf8ToUtf16(name)));
}

std::vector<std::uint8_t> targetInfo(const ChallengeMessage& message) {
    std::vector<std::uint8_t> out;
    appendName(out, AvId::nbDomainName, message.domainName);
    appendName(out, AvId::nbComputerName, message.computerName);
    if (!message.dnsDomainName.empty()) {
        appendName(out, AvId::dnsDomainName, message.dnsDomainName);
    }
    if (!message.dnsComputerName.empty()) {
        appendName(out, AvId::dnsComputerName, message.dnsComputerName);
    }
    std::vector<std::uint8_t> time;
    append(time, message.fileTime, 8);
    appendAvPair(out, AvId::timestamp, time);
    appendAvPair(out, AvId::endOfList, {});
    return out;
}

}  // namespace

int messageType(Bytes token) {
    if (token.size() < magic.size() + 4 || !std::equal(magic.begin(), magic.end(), token.begin())) {
        return 0;
    }
    const std::uint32_t type = load32(token, magic.size());
    return type >= 1 && type <= 3 ? static_cast<int>(type) : 0;
}

std::optional<std::uint32_t> parseNegotiate(Bytes message) {
    if (messageType(message) != 1 || message.size() < negotiateFixedSize) {
        return std::nullopt;
    }
    const std::uint32_t asked = load32(message, 12);
    // The client's own names are of no use here, but one that lies outside the message shows a damaged message.
    for (const auto& [flag, at] : {std::pair{flags::oemDomainSupplied, std::size_t{16}},
                                   std::pair{flags::oemWorkstationSupplied, std::size_t{24}}}) {
        if ((asked & flag) != 0 && (message.size() < at + 8 || !payload(message, at, negotiateFixedSize))) {
            return std::nullopt;
        }
    }
    return asked;
}

std::vector<std::uint8_t> encodeChallenge(const ChallengeMessage& message) {
    const auto name = littleEndian(utf8ToUtf16(message.computerName));
    const auto info = targetInfo(message);
    std::vector<std::uint8_t> out(magic.begin(), magic.end());
    append(out, 2, 4);
    appendPayload(out, name.size(), challengeFixedSize);
    append(out, message.flags, 4);
    out.insert(out.end(), message.challenge.begin(), message.challenge.end());
    append(out, 0, 8);
    appendPayload(out, info.size(), challengeFixedSize + name.size());
    append(out, versionField, 8);
    out.insert(out.end(), name.begin(), name.end());
    out.insert(out.end(), info.begin(), info.end());
    return out;
}

std::optional<OfferedChallenge> parseChallenge(Bytes message) {
    if (messageType(message) != 2 || message.size() < leastChallengeSize) {
        return std::nullopt;
    }
    OfferedChallenge offered;
    offered.flags = load32(message, 20);
    std::copy_n(message.begin() + 24, offered.challenge.size(), offered.challenge.begin());
    if ((offered.flags & flags::targetInfo) != 0) {
        const auto info = payload(message, 40, leastChallengeSize);
        if (!info) {
            return std::nullopt;
        }
        offered.targetInfo = *info;
    }
    return offered;
}

std::vector<std::uint8_t> encodeNegotiate(std::uint32_t flags) {
    std::vector<std::uint8_t> out(magic.begin(), magic.end());
    append(out, 1, 4);
    append(out, flags, 4);
    append(out, 0, 8);  // no domain
    append(out, 0, 8);  // no workstation
    append(out, versionField, 8);
    return out;
}

std::vector<std::uint8_t> encodeAuthenticate(const AnswerMessage& message) {
    const std::array<std::vector<std::uint8_t>, 3> names{littleEndian(message.domain), littleEndian(message.user),
                                                         littleEndian(message.workstation)};
    const std::array<Bytes, 6> parts{message.lmResponse, message.ntResponse, names[0],
                                     names[1],           names[2],           message.encryptedSessionKey};
    std::vector<std::uint8_t> out(magic.begin(), magic.end());
    append(out, 3, 4);
    std::size_t offset = micOffset + micSize;
    for (const Bytes part : parts) {
        appendPayload(out, part.size(), offset);
        offset += part.size();
    }
    append(out, message.flags, 4);
    append(out, versionField, 8);
    out.resize(micOffset + micSize);
    for (const Bytes part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

std::optional<AuthenticateMessage> parseAuthenticate(Bytes message) {
    if (messageType(message) != 3 || message.size() < authenticateFixedSize) {
        return std::nullopt;
    }
    const auto at = [message](std::size_t place) { return payload(message, place, authenticateFixedSize); };
    const auto lm = at(12);
    const auto nt = at(20);
    auto domain = nameFrom(at(28));
    auto user = nameFrom(at(36));
    const auto workstation = at(44);
    const auto sessionKey = at(52);
    if (!lm || !nt || !domain || !user || !workstation || !sessionKey) {
        return std::nullopt;
    }
    // An odd name of a workstation is none: nobody is refused for it.
    return AuthenticateMessage{load32(message, 60),
                               *lm,
                               *nt,
                               *sessionKey,
                               std::move(*domain),
                               std::move(*user),
                               nameFrom(workstation).value_or(std::u16string())};
}

std::optional<std::vector<AvPair>> parseAvPairs(Bytes list) {
    std::vector<AvPair> pairs;
    while (!list.empty()) {
        if (list.size() < 4) {
            return std::nullopt;
        }
        const auto id = static_cast<AvId>(load16(list, 0));
        const std::size_t length = load16(list, 2);
        if (id == AvId::endOfList) {
            return pairs;
        }
        if (length > list.size() - 4) {
            return std::nullopt;
        }
        pairs.push_back({id, list.subspan(4, length)});
        list = list.subspan(4 + length);
    }
    return pairs.empty() ? std::optional(pairs) : std::nullopt;
}

void appendAvPair(std::vector<std::uint8_t>& out, AvId id, Bytes value) {
    append(out, static_cast<std::uint16_t>(id), 2);
    append(out, value.size(), 2);
    out.insert(out.end(), value.begin(), value.end());
}

std::optional<std::uint32_t> clientAvFlags(Bytes ntlmV2Response) {
    if (ntlmV2Response.size() < ntlmV2FixedSize) {
        return std::nullopt;
    }
    const auto pairs = parseAvPairs(ntlmV2Response.subspan(ntlmV2FixedSize));
    if (!pairs) {
        return std::nullopt;
    }
    const auto found = std::find_if(pairs->begin(), pairs->end(), [](const AvPair& p) { return p.id == AvId::flags; });
    if (found == pairs->end()) {
        return 0;
    }
    return found->value.size() == 4 ? std::optional(load32(found->value, 0)) : std::nullopt;
}

std::vector<std::uint8_t> littleEndian(std::u16string_view text) {
    std::vector<std::uint8_t> out;
    out.reserve(text.size() * 2);
    for (const char16_t unit : text) {
        append(out, unit, 2);
    }
    return out;
}

}  // namespace quelm::dcom::ntlm
