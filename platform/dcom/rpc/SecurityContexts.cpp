#include "dcom/rpc/SecurityContexts.h"

#include <algorithm>
#include <utility>

#include "base/Utf.h"
#include "dcom/ntlm/Messages.h"
#include "dcom/rpc/Spnego.h"

namespace quelm::dcom::rpc {

using State = SecurityContext::State;
using Step = SecurityContexts::Step;
using Outcome = SecurityContexts::Outcome;

Outcome SecurityContexts::take(const AuthTrailer& trailer, std::uint8_t headerFlags, Token& token) {
    Outcome outcome = step(trailer, token);
    if (SecurityContext* const context = find(trailer.contextId); context != nullptr) {
        context->signsHeaders_ |= (headerFlags & flagHeaderSigning) != 0;
    }
    return outcome;
}

Outcome SecurityContexts::step(const AuthTrailer& trailer, Token& token) {
    if (trailer.type != authTypeNtlm && trailer.type != authTypeNegotiate) {
        return reject(trailer, RefusalReason::UnknownService, std::to_string(trailer.type));
    }
    // A negotiation may leave out its wrapping where only one mechanism is possible.
    const bool wrapped = trailer.type == authTypeNegotiate && ntlm::ServerContext::messageType(trailer.token) == 0;
    return wrapped ? negotiate(trailer, token) : ntlmStep(trailer, trailer.token, token);
}

Outcome SecurityContexts::negotiate(const AuthTrailer& trailer, Token& token) {
    const auto said = spnego::parse(trailer.token);
    if (!said || said->mechanisms.size() > longestMechanismList) {
        return reject(trailer, RefusalReason::MalformedNegotiation);
    }
    if (said->initial && !said->offersNtlm) {
        return reject(trailer, RefusalReason::NtlmNotOffered);
    }
    SecurityContext* context = find(trailer.contextId);
    if (!said->initial && context == nullptr) {
        return reject(trailer, RefusalReason::NegotiationWithoutBeginning);
    }
    std::vector<std::uint8_t> mechanisms =
        said->initial ? std::vector(said->mechanisms.begin(), said->mechanisms.end()) : context->mechanisms_;
    if (said->initial && !said->prefersNtlm) {
        // Its token is for another mechanism: it is to come again, with NTLM. Only a log-on that must have keys can be
        // asked for a signature; at connect level a client without them would be lost.
        const bool hasKeys = effectiveLevel(trailer.level) >= AuthLevel::Integrity;
        add({trailer, State::Negotiating, {settings_.accounts, settings_.logOn}}).mechanisms_ = std::move(mechanisms);
        token = spnego::response(hasKeys ? spnego::State::WantsSignature : spnego::State::Incomplete, true, {}, {});
        return {};
    }
    const bool finishes = context != nullptr && context->state() == State::Challenged;
    Outcome outcome = ntlmStep(trailer, said->inner, token);
    context = find(trailer.contextId);
    if (outcome.step != Step::Answered || context == nullptr) {
        return outcome;
    }
    if (!token.empty()) {
        context->mechanisms_ = std::move(mechanisms);
        token = spnego::response(spnego::State::Incomplete, said->initial, token, {});
        return outcome;
    }
    return finishes ? completeNegotiation(*context, said->signature, token) : outcome;
}

Outcome SecurityContexts::completeNegotiation(SecurityContext& context, std::span<const std::uint8_t> signature,
                                              Token& token) {
    ntlm::ServerContext::Signature own{};
    if (!context.logOn_.canSign()) {
        signature = {};  // says nothing without keys
    }
    if (!signature.empty() && !context.logOn_.exchangeSignatures(context.mechanisms_, signature, own)) {
        return refuse(context, RefusalReason::AlteredLogOn);
    }
    token = spnego::response(spnego::State::Completed, false, {},
                             signature.empty() ? std::span<const std::uint8_t>() : own);
    return {Step::Answered, RefusalReason::None, context.account(), context.level(), {}};
}

// One step of a log-on, told apart by the kind of NTLM message alone: some clients begin a new one in a change of
// context, others repeat an empty last message there, which must not undo the log-on that they have.
Outcome SecurityContexts::ntlmStep(const AuthTrailer& trailer, std::span<const std::uint8_t> message, Token& token) {
    switch (ntlm::ServerContext::messageType(message)) {
        case 1:
            return begin(trailer, message, token);
        case 3: {
            SecurityContext* const context = find(trailer.contextId);
            const bool awaited = context != nullptr && context->state() == State::Challenged;
            return awaited ? finish(*context, message) : Outcome{};
        }
        default:
            return reject(trailer, RefusalReason::NotNtlm);
    }
}

Outcome SecurityContexts::begin(const AuthTrailer& trailer, std::span<const std::uint8_t> message, Token& token) {
    if (effectiveLevel(trailer.level) == AuthLevel::None) {
        return reject(trailer, RefusalReason::UnknownLevel);
    }
    ntlm::ServerContext logOn(settings_.accounts, settings_.logOn, settings_.challenge);
    auto answer = message.size() <= longestFirstMessage ? logOn.challenge(message) : std::nullopt;
    if (!answer) {
        return reject(trailer, RefusalReason::MalformedLogOn);
    }
    token = std::move(*answer);
    add({trailer, State::Challenged, std::move(logOn)});
    return {};
}

SecurityContext& SecurityContexts::add(SecurityContext context) {
    std::erase_if(contexts_, [&context](const SecurityContext& old) { return old.id() == context.id(); });
    if (contexts_.size() >= (loggedOn_ ? most : settings_.maxLogOnsUnderWay)) {
        contexts_.erase(std::ranges::min_element(contexts_, {}, &SecurityContext::lastUse_));
    }
    context.lastUse_ = ++uses_;
    return contexts_.emplace_back(std::move(context));
}

Outcome SecurityContexts::finish(SecurityContext& context, std::span<const std::uint8_t> message) {
    const RefusalReason reason = context.logOn_.authenticate(message);
    if (reason != RefusalReason::None) {
        return refuse(context, reason);
    }
    if ((context.level() >= AuthLevel::Integrity && !context.logOn_.canSign()) ||
        (context.level() == AuthLevel::Privacy && !context.logOn_.canSeal())) {
        return refuse(context, RefusalReason::NoKeys);
    }
    context.state_ = State::LoggedOn;
    context.isAdmitted_ = context.level() >= effectiveMinimum(settings_.minimumLevel);
    account_ = loggedOn_ ? account_ : context.account();
    loggedOn_ = true;
    return {Step::Answered, RefusalReason::None, context.account(), context.level(), {}};
}

Outcome SecurityContexts::refuse(SecurityContext& context, RefusalReason reason) {
    context.state_ = State::Refused;
    return {Step::Refused, reason, context.account(), context.level(), {}};
}

Outcome SecurityContexts::reject(const AuthTrailer& trailer, RefusalReason reason, std::string detail) {
    return {Step::Rejected, reason, {}, effectiveLevel(trailer.level), std::move(detail)};
}

std::string SecurityContexts::userIn(const AuthTrailer& trailer) {
    std::span<const std::uint8_t> message = trailer.token;
    if (trailer.type == authTypeNegotiate && ntlm::messageType(message) == 0) {
        const auto said = spnego::parse(message);
        message = said ? said->inner : std::span<const std::uint8_t>();
    }
    if (ntlm::messageType(message) != 3) {
        return {};
    }
    const auto last = ntlm::parseAuthenticate(message);
    return last ? utf16ToUtf8(last->user) : std::string();
}

SecurityContext* SecurityContexts::find(std::uint32_t id) {
    // The last one made is the one in use.
    const auto found = std::find_if(contexts_.rbegin(), contexts_.rend(),
                                    [id](const SecurityContext& context) { return context.id() == id; });
    if (found == contexts_.rend()) {
        return nullptr;
    }
    found->lastUse_ = ++uses_;
    return &*found;
}

SecurityContext* SecurityContexts::unsignedContext() {
    const auto found = std::find_if(contexts_.rbegin(), contexts_.rend(), [](const SecurityContext& context) {
        return context.level() == AuthLevel::Connect;
    });
    return found == contexts_.rend() ? nullptr : &*found;
}

}  // namespace quelm::dcom::rpc
