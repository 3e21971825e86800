#pragma once

// Why an object in another process cannot be called: the step that failed, the reason, and what whoever runs the plant
// can do about it.

#include <cstdint>
#include <string>
#include <string_view>

#include "dcom/Fault.h"
#include "dcom/rpc/ClientConnection.h"

namespace quelm::dcom::outgoing {

// What was being done, in the order in which it is done: of several failures the last step says most.
enum class Step : std::uint8_t { Connect, LogOn, Resolve, AskInterface, Call, Ping };

enum class Reason : std::uint8_t {
    NoAddress,         // none of the addresses is one that can be tried
    NoLogOn,           // no account is set, and calls without a log-on are not allowed
    Unreachable,       // detail: in the system's words
    Silent,            // detail: for how long
    Closed,            // by the other end, in order
    Broken,            // detail: in the system's words
    Rpc,               // detail: a ClientFailure in words
    LogOnRefused,      // by its first call, or in answer to the log-on itself
    LogOnUnavailable,  // the other end takes none, or too weak a one
    Garbage,           // an answer that does not decode
    UnknownProcess,    // nobody there knows the client's process
    UnknownObject,     // the object is gone
    NoInterface,       // the object does not have the interface
    Fault,             // detail: the code of a fault or of a result
};

struct Trouble {
    Step step = Step::Connect;
    Reason reason = Reason::Unreachable;
    std::string address = {};  // of the other end; empty where there is none
    std::string detail = {};
    rpc::ClientFailure failure = rpc::ClientFailure::None;  // of the connection's protocol, where it is one

    // Trying again changes nothing.
    bool isFinal() const;
};

Reason reasonOf(rpc::ClientFailure failure);
// Some ends say it as COM does, most in the way of RPC.
bool isAccessDenied(Fault fault);

// "sink at 10.0.0.5:49667, log-on: it refused the log-on; remedy: ...". settingsPath: where the account is set.
std::string describe(const Trouble& trouble, std::string_view settingsPath);
// What makes two lines repeats of each other.
std::string kindOf(const Trouble& trouble);

}  // namespace quelm::dcom::outgoing
