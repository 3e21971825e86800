#pragma once

// The log-on of a connection that this end opens: gives the tokens for BIND, ALTER_CONTEXT and AUTH3, bare NTLM or
// wrapped in a negotiation, takes those of the answers, and then protects the calls.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dcom/ntlm/ClientContext.h"
#include "dcom/rpc/AuthLevel.h"
#include "dcom/rpc/MessageGuard.h"
#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

// How a connection logs on.
struct LogOnSettings {
    const ntlm::ClientAccount* account = nullptr;  // none: without a log-on; must outlive the connection
    AuthLevel level = AuthLevel::None;             // of the calls; None without an account
    bool negotiates = false;                       // wraps NTLM in a negotiation (SPNEGO), as Windows clients do
};

class ClientLogOn {
 public:
    explicit ClientLogOn(const LogOnSettings& settings);

    // What this end sends next: nothing without a log-on or when it is complete; Auth3: a message without answer;
    // Alter: one whose answer is awaited; Failed: the other end offered too little or broke the rules.
    enum class Next : std::uint8_t { Nothing, Auth3, Alter, Failed };

    // The trailer of the first message, empty without a log-on; nothing when the machine has no random numbers. The
    // view is good until the next call of a member.
    std::optional<AuthTrailer> begin();
    // Takes the token of an answer; trailer() is then what goes out next.
    Next take(std::span<const std::uint8_t> token);
    AuthTrailer trailer() const;

    bool complete() const { return complete_; }
    // For calls that are protected, none at the lower levels.
    std::optional<MessageGuard> guard();

 private:
    Next takeWrapped(std::span<const std::uint8_t> token);
    Next finishNegotiation(std::span<const std::uint8_t> token);

    LogOnSettings settings_;
    std::optional<ntlm::ClientContext> context_;
    std::vector<std::uint8_t> token_;
    bool answered_ = false;  // the challenge has been answered
    bool complete_ = false;
};

}  // namespace quelm::dcom::rpc
