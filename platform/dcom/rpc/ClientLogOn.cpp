#include "dcom/rpc/ClientLogOn.h"

#include "dcom/rpc/Spnego.h"

namespace quelm::dcom::rpc {

namespace {

// One log-on a connection, so that any number will do.
constexpr std::uint32_t onlyContext = 1;

}  // namespace

ClientLogOn::ClientLogOn(const LogOnSettings& settings) : settings_(settings), complete_(settings.account == nullptr) {
    if (settings_.account != nullptr) {
        context_.emplace(*settings_.account, settings_.level == AuthLevel::Privacy);
    }
}

AuthTrailer ClientLogOn::trailer() const {
    return {settings_.negotiates ? authTypeNegotiate : authTypeNtlm,
            static_cast<std::uint8_t>(settings_.level),
            0,
            onlyContext,
            0,
            token_};
}

std::optional<AuthTrailer> ClientLogOn::begin() {
    if (!context_) {
        return trailer();
    }
    const auto first = context_->negotiate();
    if (!first) {
        return std::nullopt;
    }
    token_ = settings_.negotiates ? spnego::initial(*first) : *first;
    return trailer();
}

ClientLogOn::Next ClientLogOn::take(std::span<const std::uint8_t> token) {
    if (complete_) {
        token_.clear();
        return Next::Nothing;
    }
    if (settings_.negotiates) {
        return takeWrapped(token);
    }
    auto answer = context_->authenticate(token);
    if (!answer) {
        return Next::Failed;
    }
    token_ = std::move(*answer);
    complete_ = true;
    return Next::Auth3;
}

ClientLogOn::Next ClientLogOn::takeWrapped(std::span<const std::uint8_t> token) {
    if (answered_) {
        return finishNegotiation(token);
    }
    const auto said = spnego::parse(token);
    const auto answer = said && !said->initial ? context_->authenticate(said->inner) : std::nullopt;
    if (!answer) {
        return Next::Failed;
    }
    ntlm::ClientContext::Signature signature{};
    context_->signNegotiation(spnego::offeredMechanisms(), signature);
    token_ = spnego::answer(*answer, signature);
    answered_ = true;
    return Next::Alter;
}

ClientLogOn::Next ClientLogOn::finishNegotiation(std::span<const std::uint8_t> token) {
    const auto said = spnego::parse(token);
    // The signature shows that nobody on the way has changed the list of mechanisms; without one anybody could have.
    if (!said || said->initial || !context_->verifyNegotiation(spnego::offeredMechanisms(), said->signature)) {
        return Next::Failed;
    }
    token_.clear();
    complete_ = true;
    return Next::Nothing;
}

std::optional<MessageGuard> ClientLogOn::guard() {
    if (!context_ || !complete_ || settings_.level < AuthLevel::Call) {
        return std::nullopt;
    }
    return MessageGuard(trailer(), settings_.level == AuthLevel::Privacy, *context_);
}

}  // namespace quelm::dcom::rpc
