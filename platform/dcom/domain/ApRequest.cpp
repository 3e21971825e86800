#include "dcom/domain/ApRequest.h"

#include <openssl/sha.h>

#include <algorithm>

#include "base/TimeSource.h"
#include "dcom/Der.h"

namespace quelm::dcom {

namespace {

constexpr std::uint8_t apRequestTag = 0x6E;
constexpr std::array<std::uint8_t, 9> kerberosOid{0x2A, 0x86, 0x48, 0x86, 0xF7, 0x12, 0x01, 0x02, 0x02};
constexpr unsigned authenticatorField = 4;
constexpr unsigned cipherField = 2;

}  // namespace

std::span<const std::uint8_t> bareApRequest(std::span<const std::uint8_t> token) {
    if (auto framed = der::enter(token, der::application)) {
        const auto mechanism = der::take(*framed);
        const bool isKerberos = mechanism && mechanism->tag == der::objectId &&
                                std::ranges::equal(mechanism->content, kerberosOid) && framed->size() > 2 &&
                                (*framed)[0] == 1 && (*framed)[1] == 0;
        token = isKerberos ? framed->subspan(2) : der::Bytes{};
    }
    return !token.empty() && token.front() == apRequestTag ? token : std::span<const std::uint8_t>{};
}

std::optional<RequestDigest> digestOf(std::span<const std::uint8_t> apRequest) {
    const auto message = der::enter(apRequest, apRequestTag);
    const auto fields = message ? der::enter(*message, der::sequence) : std::nullopt;
    const auto authenticator = fields ? der::fieldOf(*fields, authenticatorField) : std::nullopt;
    const auto encrypted = authenticator ? der::enter(*authenticator, der::sequence) : std::nullopt;
    const auto cipher = encrypted ? der::fieldOf(*encrypted, cipherField) : std::nullopt;
    const auto text = cipher ? der::enter(*cipher, der::octets) : std::nullopt;
    if (!text) {
        return std::nullopt;
    }
    std::array<std::uint8_t, SHA256_DIGEST_LENGTH> whole{};
    SHA256(text->data(), text->size(), whole.data());
    RequestDigest digest{};
    std::copy_n(whole.begin(), digest.size(), digest.begin());
    return digest;
}

bool ReplayMemory::knows(const RequestDigest& digest) const {
    const auto found = taken_.find(digest);
    return found != taken_.end() &&
           std::chrono::milliseconds(timeSource().monotonicMilliseconds() - found->second) < memory;
}

void ReplayMemory::add(const RequestDigest& digest) {
    const std::uint64_t now = timeSource().monotonicMilliseconds();
    while (!byTime_.empty() &&
           (byTime_.size() >= most || std::chrono::milliseconds(now - byTime_.begin()->first) >= memory)) {
        taken_.erase(byTime_.begin()->second);
        byTime_.erase(byTime_.begin());
    }
    if (taken_.emplace(digest, now).second) {
        byTime_.emplace(now, digest);
    }
}

}  // namespace quelm::dcom
