// The log-ons of a connection: what they wait for, and what follows when they fail.

#include <algorithm>
#include <array>
#include <utility>

#include "dcom/rpc/ServerConnection.h"

namespace quelm::dcom::rpc {

namespace {

// Enough for as many calls as clients send in one go.
constexpr std::size_t inputSize = 32U << 10U;

// A log-on that fails for one of these is no guess.
constexpr std::array<RefusalReason, 4> noGuesses = {RefusalReason::DomainAway, RefusalReason::NoWinbindRight,
                                                    RefusalReason::NotAdmitted, RefusalReason::NobodyAdmitted};

}  // namespace

SecurityContexts::Step ServerConnection::logOn(const Header& header, const AuthTrailer& trailer,
                                               std::vector<std::uint8_t>& token) {
    using Step = SecurityContexts::Step;
    const std::unique_ptr<Inquiry> inquiry = std::move(inquiry_);
    const NtlmAnswer* const answer = inquiry ? &*inquiry->answer : nullptr;
    const SecurityContexts::Outcome outcome = security_.take(trailer, header, token, answer);
    if (outcome.step == Step::Rejected) {
        refusals_.report(outcome.reason, outcome.account, outcome.level, outcome.detail);
    } else if (outcome.step == Step::Refused) {
        onFailedLogOn(outcome);
    } else if (!outcome.account.empty() && !outcome.isByTicket) {
        settings_.guesses->succeeded(peer_.host(), outcome.account);
    }
    if (loggedOn()) {
        input_.setSize(inputSize);
    }
    return outcome.step;
}

void ServerConnection::onFailedLogOn(const SecurityContexts::Outcome& outcome) {
    // With a password to guess, no name makes it harmless.
    if (outcome.reason != RefusalReason::WrongPassword && isMachineAsking(outcome.account)) {
        return;
    }
    refusals_.beginAnew();
    refusals_.report(outcome.reason, outcome.account, outcome.level, outcome.detail);
    if (!outcome.isByTicket && std::ranges::find(noGuesses, outcome.reason) == noGuesses.end()) {
        settings_.guesses->failed(peer_.host(), outcome.account);
    }
    closing_ |= ++failedLogOns_ >= settings_.maxFailedLogOns;
}

// What the end of a log-on has to wait for after too many that failed.
std::chrono::milliseconds ServerConnection::delayOf(const Header& header, std::span<const std::uint8_t> pdu) const {
    AuthTrailer trailer;
    if (header.authLength == 0 || header.type == PduType::Request || !parseTrailer(pdu, header, headerSize, trailer)) {
        return {};
    }
    const std::string user = SecurityContexts::userIn(trailer);
    return user.empty() ? std::chrono::milliseconds{} : settings_.guesses->delay(peer_.host(), user);
}

// A client's machine pings with its own account (its name ends in $) or as nobody, and when that fails without any
// log-on. There is nothing to mend about that. Any other account is one that somebody tries.
bool ServerConnection::isMachineAsking(const std::string& account) {
    return (account.empty() || account.back() == '\\' || account.back() == '$') &&
           presentations_.onlyOpenToAll(handler_);
}

// Whether the domain is still to say something about this message.
bool ServerConnection::asksDomain(const Header& header, std::span<const std::uint8_t> pdu) {
    AuthTrailer trailer;
    if (inquiry_ || settings_.passThrough == nullptr || header.authLength == 0 || header.type == PduType::Request ||
        !parseTrailer(pdu, header, headerSize, trailer)) {
        return false;
    }
    std::optional<NtlmQuestion> question = security_.questionIn(trailer);
    if (!question) {
        return false;
    }
    question->host = peer_.host();
    inquiry_ = std::make_unique<Inquiry>();
    inquiry_->asked = settings_.passThrough->ask(std::move(*question), [this](const NtlmAnswer& answer) {
        inquiry_->answer = answer;
        wakeUp();
    });
    if (!inquiry_->asked) {
        inquiry_->answer.emplace();
        inquiry_->answer->reason = RefusalReason::DomainAway;
        inquiry_->answer->detail = "too many log-ons wait for it already";
    }
    return !inquiry_->answer;
}

}  // namespace quelm::dcom::rpc
