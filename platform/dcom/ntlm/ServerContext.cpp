#include "dcom/ntlm/ServerContext.h"

#include <unistd.h>

#include <algorithm>

#include "base/TimeSource.h"
#include "base/Utf.h"
#include "dcom/Printable.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/ntlm/MessageSecurity.h"
#include "dcom/ntlm/Messages.h"

namespace quelm::dcom::ntlm {

namespace {

constexpr std::size_t longestAccount = 600;  // never cut: it tells clients apart
constexpr std::size_t v1ResponseSize = 24;

// What the server offers to every client: extended session security even to one that did not ask for it, since
// nothing weaker is ever accepted; and what it grants when the client asks.
constexpr std::uint32_t alwaysOffered = flags::unicode | flags::requestTarget | flags::ntlm | flags::alwaysSign |
                                        flags::targetTypeServer | flags::extendedSessionSecurity | flags::targetInfo;
constexpr std::uint32_t grantedOnRequest =
    flags::sign | flags::seal | flags::keyExchange | flags::key128 | flags::key56 | flags::version;

bool isAnonymous(const AuthenticateMessage& message) {
    // Clients without account send one zero byte as LM response.
    return message.user.empty() && message.ntResponse.empty() && message.lmResponse.size() <= 1;
}

// With extended session security the LM response is the client's nonce, filled up with zeros.
bool hasEssNonce(const AuthenticateMessage& message, std::uint32_t agreed) {
    const Bytes lm = message.lmResponse;
    return (agreed & flags::extendedSessionSecurity) != 0 && lm.size() == v1ResponseSize &&
           std::all_of(lm.begin() + 8, lm.end(), [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

struct ServerContext::Impl {
    enum class Stage { start, challenged, loggedOn, refused };

    Impl(const AccountStore& accounts, const ServerSettings& serverSettings, std::optional<Nonce> fixed)
        : store(accounts), settings(serverSettings), fixedChallenge(fixed) {}

    RefusalReason logOn(Bytes token, const NtlmAnswer* answer);
    RefusalReason logOnAnonymous(const AuthenticateMessage& message);
    RefusalReason logOnV1(const AuthenticateMessage& message, const NtHash& hash);
    RefusalReason logOnV2(const AuthenticateMessage& message, const NtHash& hash, Bytes token);
    RefusalReason logOnByDomain(const AuthenticateMessage& message, const NtlmAnswer& answer, Bytes token);
    RefusalReason enterV2(const AuthenticateMessage& message, Key& baseKey, Bytes token);
    RefusalReason notAcceptedKind(const AuthenticateMessage& message) const;
    RefusalReason missingAccount(std::string_view user) const;
    bool exchangeKeys(const AuthenticateMessage& message, const Key& keyExchangeKey, Key& exported) const;
    bool micFits(Bytes token, const Key& exported) const;
    bool protects() const;
    void enter(Key& exported);

    const AccountStore& store;
    const ServerSettings& settings;
    std::optional<Nonce> fixedChallenge;
    Stage stage = Stage::start;
    Nonce serverChallenge{};
    std::uint32_t agreed = 0;  // offered flags, after the log-on those of them that the client took
    std::vector<std::uint8_t> negotiateMessage;
    std::vector<std::uint8_t> challengeMessage;
    std::string account;
    std::optional<Person> person;
    std::optional<MessageSecurity> security;
};

ServerContext::ServerContext(const AccountStore& store, const ServerSettings& settings,
                             std::optional<std::array<std::uint8_t, 8>> challenge)
    : impl_(std::make_unique<Impl>(store, settings, challenge)) {}
ServerContext::~ServerContext() = default;
ServerContext::ServerContext(ServerContext&&) noexcept = default;
ServerContext& ServerContext::operator=(ServerContext&&) noexcept = default;

int ServerContext::messageType(std::span<const std::uint8_t> token) {
    return ntlm::messageType(token);
}

std::optional<std::vector<std::uint8_t>> ServerContext::challenge(std::span<const std::uint8_t> negotiate) {
    Impl& self = *impl_;
    self.stage = Impl::Stage::start;
    self.security.reset();
    self.account.clear();
    self.person.reset();
    const auto asked = parseNegotiate(negotiate);
    if (!asked || (*asked & flags::unicode) == 0) {
        return std::nullopt;
    }
    if (self.fixedChallenge) {
        self.serverChallenge = *self.fixedChallenge;
    } else if (getentropy(self.serverChallenge.data(), self.serverChallenge.size()) != 0) {
        // A challenge that can be guessed would let a recorded log-on in again.
        return std::nullopt;
    }
    self.agreed = alwaysOffered | (*asked & grantedOnRequest);
    self.negotiateMessage.assign(negotiate.begin(), negotiate.end());
    self.challengeMessage =
        encodeChallenge({self.agreed, self.serverChallenge, self.settings.computerName, self.settings.domainName,
                         self.settings.dnsComputerName, self.settings.dnsDomainName,
                         static_cast<std::uint64_t>(timeSource().fileTimeNow())});
    self.stage = Impl::Stage::challenged;
    return self.challengeMessage;
}

std::optional<NtlmQuestion> ServerContext::question(std::span<const std::uint8_t> authenticateMessage) const {
    const Impl& self = *impl_;
    const auto message = parseAuthenticate(authenticateMessage);
    if (self.stage != Impl::Stage::challenged || !message || (message->flags & flags::unicode) == 0 ||
        message->user.empty() || message->ntResponse.size() == v1ResponseSize || !clientAvFlags(message->ntResponse)) {
        return std::nullopt;
    }
    NtlmQuestion question{.domain = utf16ToUtf8(message->domain), .user = utf16ToUtf8(message->user)};
    if (std::optional<NtHash> hash = self.store.find(question.domain, question.user)) {
        wipe(*hash);
        return std::nullopt;
    }
    question.workstation = utf16ToUtf8(message->workstation);
    question.challenge = self.serverChallenge;
    question.lmResponse.assign(message->lmResponse.begin(), message->lmResponse.end());
    question.ntResponse.assign(message->ntResponse.begin(), message->ntResponse.end());
    return question;
}

RefusalReason ServerContext::authenticate(std::span<const std::uint8_t> authenticateMessage, const NtlmAnswer* answer) {
    if (impl_->stage != Impl::Stage::challenged) {
        return RefusalReason::LogOnOutOfTurn;
    }
    // One answer per challenge: a second guess needs a new one.
    impl_->stage = Impl::Stage::refused;
    return impl_->logOn(authenticateMessage, answer);
}

RefusalReason ServerContext::Impl::logOn(Bytes token, const NtlmAnswer* answer) {
    const auto message = parseAuthenticate(token);
    if (!message || (message->flags & flags::unicode) == 0) {
        return RefusalReason::MalformedLogOn;
    }
    agreed &= message->flags;
    const std::string domain = utf16ToUtf8(message->domain);
    const std::string user = utf16ToUtf8(message->user);
    if (isAnonymous(*message)) {
        return logOnAnonymous(*message);
    }
    account = printable(domain.empty() ? user : domain + '\\' + user, longestAccount);
    if (const RefusalReason reason = notAcceptedKind(*message); reason != RefusalReason::None) {
        return reason;
    }
    std::optional<NtHash> hash = store.find(domain, user);
    if (!hash) {
        return answer != nullptr ? logOnByDomain(*message, *answer, token) : missingAccount(user);
    }
    const RefusalReason reason =
        message->ntResponse.size() == v1ResponseSize ? logOnV1(*message, *hash) : logOnV2(*message, *hash, token);
    wipe(*hash);
    return reason;
}

RefusalReason ServerContext::Impl::notAcceptedKind(const AuthenticateMessage& message) const {
    if (message.ntResponse.empty()) {
        return RefusalReason::LmOnly;
    }
    if (message.ntResponse.size() != v1ResponseSize) {
        return RefusalReason::None;
    }
    if (!hasEssNonce(message, agreed)) {
        return RefusalReason::PlainNtlmV1;
    }
    return settings.allowNtlmV1Ess ? RefusalReason::None : RefusalReason::NtlmV1;
}

RefusalReason ServerContext::Impl::missingAccount(std::string_view user) const {
    return store.knowsUser(user) ? RefusalReason::WrongDomain : RefusalReason::UnknownAccount;
}

RefusalReason ServerContext::Impl::logOnAnonymous(const AuthenticateMessage& message) {
    if (!settings.allowAnonymous) {
        return RefusalReason::Anonymous;
    }
    Key exported;
    if (!exchangeKeys(message, Key{}, exported)) {
        return RefusalReason::MalformedLogOn;
    }
    enter(exported);
    return RefusalReason::None;
}

RefusalReason ServerContext::Impl::logOnV1(const AuthenticateMessage& message, const NtHash& hash) {
    const Bytes clientNonce = message.lmResponse.first(8);
    if (!sameSecret(responseV1Ess(hash, serverChallenge, clientNonce), message.ntResponse)) {
        return RefusalReason::WrongPassword;
    }
    Key exported;
    if (!exchangeKeys(message, keyExchangeKeyV1Ess(hash, serverChallenge, clientNonce), exported)) {
        return RefusalReason::MalformedLogOn;
    }
    enter(exported);
    return RefusalReason::None;
}

RefusalReason ServerContext::Impl::logOnV2(const AuthenticateMessage& message, const NtHash& hash, Bytes token) {
    if (!clientAvFlags(message.ntResponse)) {
        return RefusalReason::MalformedLogOn;
    }
    const Bytes proof = message.ntResponse.first(16);
    Key responseKey = responseKeyV2(hash, message.user, message.domain);
    const bool fits = sameSecret(proofV2(responseKey, serverChallenge, message.ntResponse.subspan(16)), proof);
    Key baseKey = sessionBaseKeyV2(responseKey, proof);
    wipe(responseKey);
    const RefusalReason reason = fits ? enterV2(message, baseKey, token) : RefusalReason::WrongPassword;
    wipe(baseKey);
    return reason;
}

RefusalReason ServerContext::Impl::logOnByDomain(const AuthenticateMessage& message, const NtlmAnswer& answer,
                                                 Bytes token) {
    if (answer.reason == RefusalReason::DomainUnknown && store.knowsUser(utf16ToUtf8(message.user))) {
        return RefusalReason::WrongDomain;
    }
    if (answer.reason != RefusalReason::None) {
        return answer.reason;
    }
    Key baseKey = answer.sessionKey;
    const RefusalReason reason = enterV2(message, baseKey, token);
    wipe(baseKey);
    if (reason == RefusalReason::None) {
        person = answer.person;
        account = person->account();
    }
    return reason;
}

// The response was right.
RefusalReason ServerContext::Impl::enterV2(const AuthenticateMessage& message, Key& baseKey, Bytes token) {
    const auto avFlags = clientAvFlags(message.ntResponse);
    Key exported;
    if (!avFlags || !exchangeKeys(message, baseKey, exported)) {
        return RefusalReason::MalformedLogOn;
    }
    if ((*avFlags & avFlagMicPresent) != 0 && !micFits(token, exported)) {
        return RefusalReason::AlteredLogOn;
    }
    enter(exported);
    return RefusalReason::None;
}

bool ServerContext::Impl::protects() const {
    return (agreed & (flags::sign | flags::seal)) != 0;
}

// Gives the key that the session's other keys come from; false when the client should have sent one and did not.
bool ServerContext::Impl::exchangeKeys(const AuthenticateMessage& message, const Key& keyExchangeKey,
                                       Key& exported) const {
    exported = keyExchangeKey;
    if ((agreed & flags::keyExchange) == 0) {
        return true;
    }
    if (message.encryptedSessionKey.size() != exported.size()) {
        return message.encryptedSessionKey.empty() && !protects();
    }
    Key encrypted;
    std::copy(message.encryptedSessionKey.begin(), message.encryptedSessionKey.end(), encrypted.begin());
    exported = rc4(keyExchangeKey, encrypted);
    return true;
}

// The MIC covers all three messages, itself taken as zeros: nobody on the way has talked the two ends down.
bool ServerContext::Impl::micFits(Bytes token, const Key& exported) const {
    if (token.size() < micOffset + micSize) {
        return false;
    }
    constexpr std::array<std::uint8_t, micSize> blank{};
    const Key expected = hmacMd5(exported, {negotiateMessage, challengeMessage, token.first(micOffset), blank,
                                            token.subspan(micOffset + micSize)});
    return sameSecret(expected, token.subspan(micOffset, micSize));
}

void ServerContext::Impl::enter(Key& exported) {
    if ((agreed & flags::extendedSessionSecurity) != 0 && protects()) {
        security.emplace(exported, agreed, Side::server);
    }
    wipe(exported);
    negotiateMessage = {};
    challengeMessage = {};
    stage = Stage::loggedOn;
}

bool ServerContext::authenticated() const {
    return impl_->stage == Impl::Stage::loggedOn;
}

const std::string& ServerContext::account() const {
    return impl_->account;
}

const Person* ServerContext::person() const {
    return impl_->person ? &*impl_->person : nullptr;
}

bool ServerContext::canSign() const {
    return impl_->security.has_value();
}

bool ServerContext::canSeal() const {
    return canSign() && (impl_->agreed & flags::seal) != 0;
}

void ServerContext::sign(std::span<const std::uint8_t> message, Signature& signature) {
    if (canSign()) {
        impl_->security->sign(message, signature);
    } else {
        signature = {1};
    }
}

void ServerContext::seal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed, Signature& signature) {
    if (canSeal()) {
        impl_->security->seal(message, sealed, signature);
    } else {
        wipe(sealed);
        sign(message, signature);
    }
}

bool ServerContext::verify(std::span<const std::uint8_t> message, std::span<const std::uint8_t> signature) {
    return canSign() && impl_->security->verify(message, signature);
}

bool ServerContext::unseal(std::span<std::uint8_t> message, std::span<std::uint8_t> sealed,
                           std::span<const std::uint8_t> signature) {
    return canSeal() && impl_->security->unseal(message, sealed, signature);
}

bool ServerContext::exchangeSignatures(std::span<const std::uint8_t> text,
                                       std::span<const std::uint8_t> clientSignature, Signature& signature) {
    if (!canSign() || !impl_->security->verifyNegotiation(text, clientSignature)) {
        return false;
    }
    impl_->security->signNegotiation(text, signature);
    return true;
}

}  // namespace quelm::dcom::ntlm
