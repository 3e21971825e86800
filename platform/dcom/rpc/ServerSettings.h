#pragma once

// What all connections of the RPC server have in common, and what one of them may cost. Of the other limits, numbers
// and times of connections are in net::TcpSettings, the waits after failed log-ons in GuessGuard, sizes of messages in
// Pdu.h (ownMaxFragment, maxHandshake) and of tokens in SecurityContexts, repeats of lines in net::RepeatFilter, and
// what a client may hold in ClientBudgets. The operator's guide has them all in tables.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "budget/ClientBudget.h"
#include "dcom/domain/AccessList.h"
#include "dcom/domain/Kerberos.h"
#include "dcom/domain/PassThrough.h"
#include "dcom/ntlm/ServerContext.h"
#include "dcom/rpc/AuthLevel.h"
#include "dcom/rpc/GuessGuard.h"
#include "dcom/rpc/Refusal.h"

namespace quelm::dcom::rpc {

// Must outlive the connections.
// What the accounts, the access list, the log-on and the least level say may change while connections are there,
// between two turns of their loop: it concerns later log-ons.
struct ServerSettings {
    const ntlm::AccountStore& accounts;
    ntlm::ServerSettings logOn;
    // Calls below it are refused. Call, packet and integrity are one and the same here: over TCP, NTLM protects the
    // lower two like integrity.
    AuthLevel minimumLevel = AuthLevel::Integrity;
    std::size_t maxCallSize = 16U << 20U;   // bytes of a request's stub data, all fragments together
    std::size_t outputLimit = 256U << 10U;  // bytes waiting to be sent from which on no further call is begun
    RefusalSink onRefused;                  // of each failed log-on, of the rest the first of a connection
    // Of what is held for each client; none: only the limits of one connection hold.
    ClientBudgets* budgets = nullptr;
    std::optional<std::array<std::uint8_t, 8>> challenge;  // fixed NTLM challenge, for tests only
    // Before any log-on of the connection has succeeded:
    std::size_t maxCallSizeBeforeLogOn = 64U << 10U;  // bytes, as above; a client machine pings without a log-on
    std::size_t maxLogOnsUnderWay = 4;                // then the one not used for longest is forgotten
    // Log-ons with tickets of the domain's, and which of its accounts may come in; none: no such log-on is taken.
    Kerberos* kerberos = nullptr;
    // Whoever asks the domain about log-ons by NTLM of accounts that are not among those above; none: they are refused.
    PassThrough* passThrough = nullptr;
    AccessList access = {};
    // After so many failed log-ons the connection is closed.
    unsigned maxFailedLogOns = 3;
    std::shared_ptr<GuessGuard> guesses = std::make_shared<GuessGuard>();
};

}  // namespace quelm::dcom::rpc
