#pragma once

// What all connections of the RPC server have in common, its limits among it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "Budget/ClientBudget.h"
#include "DCOM/ntlm/ServerContext.h"
#include "DCOM/rpc/AuthLevel.h"
#include "DCOM/rpc/Refusal.h"

namespace quelm::dcom::rpc {

// Must outlive the connections.
struct ServerSettings {
    const ntlm::AccountStore& accounts;
    ntlm::ServerSettings logOn;
    // Calls below it are refused. Call, packet and integrity are one and the same here: over TCP, NTLM protects the
    // lower two like integrity.
    AuthLevel minimumLevel = AuthLevel::Integrity;
    std::size_t maxCallSize = 16U << 20U;   // bytes of a request's stub data, all fragments together
    std::size_t outputLimit = 256U << 10U;  // bytes waiting to be sent from which on no further call is begun
    RefusalSink onRefused;                  // at most once per connection and log-on
    // Of what is held for each client; none: only the limits of one connection hold.
    ClientBudgets* budgets = nullptr;
    std::optional<std::array<std::uint8_t, 8>> challenge;  // fixed NTLM challenge, for tests only
};

}  // namespace quelm::dcom::rpc
