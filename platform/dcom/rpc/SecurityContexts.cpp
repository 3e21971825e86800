#include "dcom/rpc/SecurityContexts.h"

#include <algorithm>
#include <utility>

#include "base/Utf.h"
#include "dcom/domain/ApRequest.h"
#include "dcom/ntlm/Messages.h"
#include "dcom/rpc/Spnego.h"

namespace quelm::dcom::rpc {

using State = SecurityContext::State;
using Step = SecurityContexts::Step;
using Outcome = SecurityContexts::Outcome;

namespace {

// The message that ends a log-on by NTLM, bare or in a negotiation; empty when there is none.
std::span<const std::uint8_t> lastMessageIn(const AuthTrailer& trailer) {
    std::span<const std::uint8_t> message = trailer.token;
    if (trailer.type == authTypeNegotiate && ntlm::messageType(message) == 0) {
        const auto said = spnego::parse(message);
        message = said ? said->inner : std::span<const std::uint8_t>();
    }
    return ntlm::messageType(message) == 3 ? message : std::span<const std::uint8_t>();
}

}  // namespace

Outcome SecurityContexts::take(const AuthTrailer& trailer, const Header& header, Token& token,
                               const NtlmAnswer* answer) {
    answer_ = answer;
    const bool asksForHeaders = (header.flags & flagHeaderSigning) != 0;
    if (header.type == PduType::Bind) {
        bindCoversHeaders_ = asksForHeaders;
    }
    Outcome outcome = step(trailer, token);
    answer_ = nullptr;
    if (SecurityContext* const context = find(trailer.contextId); context != nullptr) {
        context->signsHeaders_ |= asksForHeaders;
        // What was agreed on in the first message of a connection holds for its later log-ons, which need not repeat
        // it.
        if (context->kerberos_ && (context->signsHeaders_ || bindCoversHeaders_)) {
            context->kerberos_->coverHeaders();
        }
    }
    return outcome;
}

bool SecurityContexts::knows(std::uint8_t type) const {
    return type == authTypeNtlm || type == authTypeNegotiate ||
           (type == authTypeKerberos && settings_.kerberos != nullptr);
}

Outcome SecurityContexts::step(const AuthTrailer& trailer, Token& token) {
    if (!knows(trailer.type)) {
        return reject(trailer, RefusalReason::UnknownService, std::to_string(trailer.type));
    }
    if (trailer.type == authTypeKerberos) {
        return kerberosStep(trailer, trailer.token, token);
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
    SecurityContext* context = find(trailer.contextId);
    if (!said->initial && context == nullptr) {
        return reject(trailer, RefusalReason::NegotiationWithoutBeginning);
    }
    std::vector<std::uint8_t> mechanisms =
        said->initial ? std::vector(said->mechanisms.begin(), said->mechanisms.end()) : context->mechanisms_;
    const bool beginsWithTicket = said->initial && settings_.kerberos != nullptr &&
                                  spnego::isKerberos(said->preferred) && !bareApRequest(said->inner).empty();
    const bool goesOnWithTicket = !said->initial && context->kerberos_ && context->state() == State::Challenged;
    if (beginsWithTicket || goesOnWithTicket) {
        return negotiateTicket(trailer, said->preferred, said->inner, said->signature, std::move(mechanisms), token);
    }
    if (said->initial && !said->offersNtlm) {
        return reject(trailer, RefusalReason::NtlmNotOffered);
    }
    if (said->initial && !said->prefersNtlm) {
        // Its token is for another mechanism: it is to come again, with NTLM. Only a log-on that must have keys can be
        // asked for a signature; at connect level a client without them would be lost.
        const bool hasKeys = effectiveLevel(trailer.level) >= AuthLevel::Integrity;
        add({trailer, State::Negotiating, {settings_.accounts, settings_.logOn}}).mechanisms_ = std::move(mechanisms);
        token = spnego::response(hasKeys ? spnego::State::WantsSignature : spnego::State::Incomplete,
                                 spnego::ntlmMechanism, {}, {});
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
        token = spnego::response(spnego::State::Incomplete, said->preferred, token, {});
        return outcome;
    }
    return finishes ? completeNegotiation(*context, said->signature, token) : outcome;
}

// mechanism: named by the client's first message of the negotiation only, and by the answer to it.
Outcome SecurityContexts::negotiateTicket(const AuthTrailer& trailer, std::span<const std::uint8_t> mechanism,
                                          std::span<const std::uint8_t> message,
                                          std::span<const std::uint8_t> signature, std::vector<std::uint8_t> mechanisms,
                                          Token& token) {
    Outcome outcome = kerberosStep(trailer, message, token);
    SecurityContext* const context = find(trailer.contextId);
    if (outcome.step != Step::Answered || context == nullptr) {
        return outcome;
    }
    if (context->state() == State::LoggedOn) {
        return completeNegotiation(*context, signature, token);
    }
    context->mechanisms_ = std::move(mechanisms);
    token = spnego::response(spnego::State::Incomplete, mechanism, token, {});
    return outcome;
}

Outcome SecurityContexts::completeNegotiation(SecurityContext& context, std::span<const std::uint8_t> signature,
                                              Token& token) {
    Token own;
    if (!context.canSign()) {
        signature = {};  // says nothing without keys
    }
    if (!signature.empty() && !context.exchangeSignatures(signature, own)) {
        return refuse(context, RefusalReason::AlteredLogOn);
    }
    token = spnego::response(spnego::State::Completed, {}, {}, own);
    return {Step::Answered, RefusalReason::None, context.account(), context.level(), {}, context.kerberos_ != nullptr};
}

bool SecurityContext::exchangeSignatures(std::span<const std::uint8_t> signature, std::vector<std::uint8_t>& own) {
    if (kerberos_) {
        return kerberos_->exchangeSignatures(mechanisms_, signature, own);
    }
    ntlm::ServerContext::Signature ownSignature{};
    const bool good = logOn_.exchangeSignatures(mechanisms_, signature, ownSignature);
    own.assign(ownSignature.begin(), ownSignature.end());
    return good;
}

// One step of a log-on with a ticket: the client's request begins one, its second message ends it.
Outcome SecurityContexts::kerberosStep(const AuthTrailer& trailer, std::span<const std::uint8_t> message,
                                       Token& token) {
    if (effectiveLevel(trailer.level) == AuthLevel::None) {
        return reject(trailer, RefusalReason::UnknownLevel);
    }
    SecurityContext* context = find(trailer.contextId);
    // Some clients repeat the last message of the log-on that they have when they bind to a further interface.
    if (context != nullptr && context->kerberos_ && context->state() == State::LoggedOn &&
        bareApRequest(message).empty()) {
        return {};
    }
    const bool begins = context == nullptr || !context->kerberos_ || context->state() != State::Challenged;
    if (begins) {
        SecurityContext fresh(trailer, State::Challenged, {settings_.accounts, settings_.logOn});
        fresh.kerberos_ = settings_.kerberos->begin();
        context = &add(std::move(fresh));
    }
    token.clear();
    const KerberosLogOn::Step step = context->kerberos_->take(message, token);
    if (step.reason != RefusalReason::None) {
        Outcome refusal = refuse(*context, step.reason, step.detail);
        // Without an answer to its request a client has nothing to go on with.
        refusal.step = begins ? Step::Rejected : Step::Refused;
        return refusal;
    }
    return step.isComplete ? finishTicket(*context) : Outcome{};
}

Outcome SecurityContexts::finishTicket(SecurityContext& context) {
    const Person& person = context.kerberos_->person();
    context.ticketAccount_ = person.account();
    return admit(context, person);
}

// Whom the domain vouches for.
Outcome SecurityContexts::admit(SecurityContext& context, const Person& person) {
    if (settings_.access.empty()) {
        return refuse(context, RefusalReason::NobodyAdmitted);
    }
    return settings_.access.admits(person) ? enter(context)
                                           : refuse(context, RefusalReason::NotAdmitted, settings_.access.shown());
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
    const RefusalReason reason = context.logOn_.authenticate(message, answer_);
    if (answer_ != nullptr && reason != RefusalReason::None && reason == answer_->reason) {
        return refuse(context, reason, answer_->detail);
    }
    if (reason == RefusalReason::UnknownAccount && answer_ == nullptr && settings_.passThrough != nullptr) {
        return refuse(context, RefusalReason::DomainNtlmV1);
    }
    if (reason != RefusalReason::None) {
        return refuse(context, reason);
    }
    const Person* const person = context.logOn_.person();
    return person != nullptr ? admit(context, *person) : enter(context);
}

Outcome SecurityContexts::enter(SecurityContext& context) {
    if ((context.level() >= AuthLevel::Integrity && !context.canSign()) ||
        (context.level() == AuthLevel::Privacy && !context.canSeal())) {
        return refuse(context, RefusalReason::NoKeys);
    }
    context.state_ = State::LoggedOn;
    context.isAdmitted_ = context.level() >= effectiveMinimum(settings_.minimumLevel);
    account_ = loggedOn_ ? account_ : context.account();
    loggedOn_ = true;
    return {Step::Answered, RefusalReason::None, context.account(), context.level(), {}, context.kerberos_ != nullptr};
}

Outcome SecurityContexts::refuse(SecurityContext& context, RefusalReason reason, std::string detail) {
    context.state_ = State::Refused;
    return {Step::Refused, reason, context.account(), context.level(), std::move(detail), context.kerberos_ != nullptr};
}

Outcome SecurityContexts::reject(const AuthTrailer& trailer, RefusalReason reason, std::string detail) {
    return {Step::Rejected, reason, {}, effectiveLevel(trailer.level), std::move(detail), false};
}

std::string SecurityContexts::userIn(const AuthTrailer& trailer) {
    const auto last = ntlm::parseAuthenticate(lastMessageIn(trailer));
    return last ? utf16ToUtf8(last->user) : std::string();
}

std::optional<NtlmQuestion> SecurityContexts::questionIn(const AuthTrailer& trailer) const {
    const auto message = settings_.passThrough != nullptr ? lastMessageIn(trailer) : std::span<const std::uint8_t>();
    const auto context = std::ranges::find(contexts_, trailer.contextId, &SecurityContext::id);
    const bool isOpen = !message.empty() && context != contexts_.end() && !context->kerberos_;
    return isOpen ? context->logOn_.question(message) : std::nullopt;
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
