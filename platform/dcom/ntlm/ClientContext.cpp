#include "dcom/ntlm/ClientContext.h"

#include <unistd.h>

#include <algorithm>

#include "base/TimeSource.h"
#include "base/Utf.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/ntlm/MessageSecurity.h"
#include "dcom/ntlm/Messages.h"

namespace quelm::dcom::ntlm {

namespace {

// What this end never does without; encryption is added where it is to seal.
constexpr std::uint32_t required =
    flags::unicode | flags::sign | flags::ntlm | flags::extendedSessionSecurity | flags::key128;
constexpr std::uint32_t asked = required | flags::requestTarget | flags::alwaysSign | flags::targetInfo |
                                flags::version | flags::keyExchange | flags::key56;

// The other end's AV pairs as the answer gives them back, with the word that says that a MIC follows.
struct AnsweredPairs {
    std::vector<std::uint8_t> list;
    std::optional<std::uint64_t> fileTime;  // the other end's clock, 100 ns since 1601, UTC
};

std::uint64_t loadTime(Bytes value) {
    std::uint64_t time = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        time |= std::uint64_t{value[i]} << 8 * i;
    }
    return time;
}

std::optional<AnsweredPairs> answerPairs(Bytes offered) {
    const auto pairs = parseAvPairs(offered);
    if (!pairs) {
        return std::nullopt;
    }
    AnsweredPairs result;
    std::uint32_t flagWord = avFlagMicPresent;
    for (const AvPair& pair : *pairs) {
        if (pair.id == AvId::flags && pair.value.size() == 4) {
            flagWord |= static_cast<std::uint32_t>(loadTime(pair.value));
            continue;
        }
        if (pair.id == AvId::timestamp && pair.value.size() == 8) {
            result.fileTime = loadTime(pair.value);
        }
        appendAvPair(result.list, pair.id, pair.value);
    }
    std::array<std::uint8_t, 4> word{};
    for (std::size_t i = 0; i < word.size(); ++i) {
        word[i] = static_cast<std::uint8_t>(flagWord >> 8 * i);
    }
    appendAvPair(result.list, AvId::flags, word);
    appendAvPair(result.list, AvId::endOfList, {});
    return result;
}

// The client's part of an NTLMv2 response, which its proof covers.
std::vector<std::uint8_t> clientData(const AnsweredPairs& pairs, const Nonce& challenge) {
    const std::uint64_t time = pairs.fileTime.value_or(static_cast<std::uint64_t>(timeSource().fileTimeNow()));
    std::vector<std::uint8_t> out{1, 1, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 8; ++i) {
        out.push_back(static_cast<std::uint8_t>(time >> 8 * i));
    }
    out.insert(out.end(), challenge.begin(), challenge.end());
    out.resize(out.size() + 4);
    out.insert(out.end(), pairs.list.begin(), pairs.list.end());
    out.resize(out.size() + 4);
    return out;
}

}  // namespace

struct ClientContext::Impl {
    enum class Stage { start, negotiated, ready };

    Impl(const ClientAccount& who, bool encrypts, std::optional<Nonces> fixed)
        : account(who), seals(encrypts), fixedNonces(fixed) {}

    bool drawNonces();
    std::vector<std::uint8_t> answer(const OfferedChallenge& offered, const AnsweredPairs& pairs, Bytes challenge);

    const ClientAccount& account;
    bool seals;
    std::optional<Nonces> fixedNonces;
    Stage stage = Stage::start;
    Nonces nonces;
    std::vector<std::uint8_t> negotiateMessage;
    std::optional<MessageSecurity> security;
};

ClientContext::ClientContext(const ClientAccount& account, bool seals, std::optional<Nonces> nonces)
    : impl_(std::make_unique<Impl>(account, seals, nonces)) {}
ClientContext::~ClientContext() = default;
ClientContext::ClientContext(ClientContext&&) noexcept = default;
ClientContext& ClientContext::operator=(ClientContext&&) noexcept = default;

bool ClientContext::Impl::drawNonces() {
    if (fixedNonces) {
        nonces = *fixedNonces;
        return true;
    }
    return getentropy(nonces.challenge.data(), nonces.challenge.size()) == 0 &&
           getentropy(nonces.sessionKey.data(), nonces.sessionKey.size()) == 0;
}

std::optional<std::vector<std::uint8_t>> ClientContext::negotiate() {
    Impl& self = *impl_;
    self.stage = Impl::Stage::start;
    self.security.reset();
    if (!self.drawNonces()) {
        return std::nullopt;
    }
    self.negotiateMessage = encodeNegotiate(asked | (self.seals ? flags::seal : 0));
    self.stage = Impl::Stage::negotiated;
    return self.negotiateMessage;
}

std::optional<std::vector<std::uint8_t>> ClientContext::authenticate(std::span<const std::uint8_t> challenge) {
    Impl& self = *impl_;
    if (self.stage != Impl::Stage::negotiated) {
        return std::nullopt;
    }
    self.stage = Impl::Stage::start;
    const auto offered = parseChallenge(challenge);
    const std::uint32_t needed = required | (self.seals ? flags::seal : 0);
    if (!offered || (offered->flags & needed) != needed) {
        return std::nullopt;
    }
    const auto pairs = answerPairs(offered->targetInfo);
    if (!pairs) {
        return std::nullopt;
    }
    auto message = self.answer(*offered, *pairs, challenge);
    self.stage = Impl::Stage::ready;
    return message;
}

std::vector<std::uint8_t> ClientContext::Impl::answer(const OfferedChallenge& offered, const AnsweredPairs& pairs,
                                                      Bytes challenge) {
    const std::uint32_t agreed = offered.flags & (asked | (seals ? flags::seal : 0));
    const std::u16string domain = utf8ToUtf16(account.domain);
    const std::u16string user = utf8ToUtf16(account.user);
    const std::vector<std::uint8_t> data = clientData(pairs, nonces.challenge);
    Key responseKey = responseKeyV2(account.hash, user, domain);
    const Key proof = proofV2(responseKey, offered.challenge, data);
    std::vector<std::uint8_t> response(proof.begin(), proof.end());
    response.insert(response.end(), data.begin(), data.end());

    Key exported = sessionBaseKeyV2(responseKey, proof);
    std::vector<std::uint8_t> sessionKey;
    if ((agreed & flags::keyExchange) != 0) {
        const Key encrypted = rc4(exported, nonces.sessionKey);
        sessionKey.assign(encrypted.begin(), encrypted.end());
        exported = nonces.sessionKey;
    }
    // The answer of LM, which nobody looks at beside NTLMv2: zeros, as the MIC demands.
    constexpr std::array<std::uint8_t, 24> noLmResponse{};
    auto message = encodeAuthenticate(
        {agreed, noLmResponse, response, sessionKey, domain, user, utf8ToUtf16(account.workstation)});
    const Key mic = hmacMd5(exported, {negotiateMessage, challenge, message});
    std::copy(mic.begin(), mic.end(), message.begin() + micOffset);
    security.emplace(exported, agreed, Side::client);
    wipe(responseKey);
    wipe(exported);
    wipe(nonces.sessionKey);
    return message;
}

bool ClientContext::ready() const {
    return impl_->stage == Impl::Stage::ready;
}

void ClientContext::sign(std::span<const std::uint8_t> message, Signature& signature) {
    if (ready()) {
        impl_->security->sign(message, signature);
    } else {
        signature = {1};
    }
}

void ClientContext::seal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed, Signature& signature) {
    if (ready() && impl_->seals) {
        impl_->security->seal(message, sealed, signature);
    } else {
        wipe(sealed);
        sign(message, signature);
    }
}

bool ClientContext::verify(std::span<const std::uint8_t> message, std::span<const std::uint8_t> signature) {
    return ready() && impl_->security->verify(message, signature);
}

bool ClientContext::unseal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed,
                           std::span<const std::uint8_t> signature) {
    return ready() && impl_->seals && impl_->security->unseal(message, sealed, signature);
}

void ClientContext::signNegotiation(std::span<const std::uint8_t> text, Signature& signature) {
    impl_->security->signNegotiation(text, signature);
}

bool ClientContext::verifyNegotiation(std::span<const std::uint8_t> text, std::span<const std::uint8_t> signature) {
    return impl_->security->verifyNegotiation(text, signature);
}

}  // namespace quelm::dcom::ntlm
