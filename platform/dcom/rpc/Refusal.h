#pragma once

// How a refused client gets into the log: one plain line that names it, its account, the level, the reason and the
// remedy.

#include <functional>
#include <string>
#include <string_view>

#include "dcom/RefusalReason.h"
#include "dcom/rpc/AuthLevel.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::rpc {

struct Refusal {
    const Peer& peer;
    std::string_view account;  // as the client gave it; empty without a log-on
    AuthLevel level = AuthLevel::None;
    RefusalReason reason = RefusalReason::None;
    std::string detail = {};  // of a reason that has one

    // "Refused OPC client 192.0.2.7:51234: account 'DOM\user', level connect: reason; remedy: ..."
    // What the client typed is cut to a sane length and freed of control characters.
    // settings: how the operator finds the settings that a remedy is about.
    std::string line(std::string_view settings = "the DCOM settings") const;
    // The same for all refusals of one account for one reason.
    std::string kind() const;
};

using RefusalSink = std::function<void(const Refusal&)>;

// Tells the sink of the first refusal only, until a new BIND or log-on begins everything anew.
class RefusalReporter {
 public:
    // Both must outlive the reporter.
    RefusalReporter(const RefusalSink& sink, const Peer& peer) : sink_(sink), peer_(peer) {}

    void report(RefusalReason reason, std::string_view account = {}, AuthLevel level = AuthLevel::None,
                std::string detail = {});
    void beginAnew() { reported_ = false; }

 private:
    const RefusalSink& sink_;
    const Peer& peer_;
    bool reported_ = false;
};

}  // namespace quelm::dcom::rpc
