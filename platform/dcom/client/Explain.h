#pragma once

// Puts what the connections report into a sentence for the user: what was being done, where, what happened, and what to
// do about it.

#include <string>

#include "dcom/Fault.h"
#include "dcom/client/Session.h"
#include "dcom/client/Trouble.h"
#include "dcom/outgoing/Trouble.h"

namespace quelm::dcom::client {

// What a connection is for.
enum class Purpose : std::uint8_t {
    Activation,  // asking a machine for an object
    Resolving,   // asking a machine where a process is called
    Calling,     // the object itself
};

// Who came, for sentences about log-ons: "PLANT\reader at level integrity".
std::string nameOf(const LogOn& logOn, rpc::AuthLevel level);

// who: see nameOf(); empty without a log-on.
Trouble explain(const outgoing::Trouble& trouble, Purpose purpose, const std::string& who);
// A fault that answered a call. what: "method 3 of interface {...}".
Trouble explainFault(Fault fault, const std::string& address, const std::string& what);
// An answer that does not decode, or leads astray.
Trouble garbage(const std::string& address, const std::string& what);

}  // namespace quelm::dcom::client
