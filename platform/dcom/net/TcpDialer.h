#pragma once

// Owns the sockets of the connections that this server opens: to the machines of clients that want to be called back.
// Numeric addresses only, because a name server that hangs would hold up everybody.

#include <memory>

#include "dcom/outgoing/Dialer.h"
#include "loop/AsioLoop.h"

namespace quelm::dcom::net {

class TcpDialer final : public outgoing::IDialer {
 public:
    // The loop must outlive the dialer and its links.
    explicit TcpDialer(AsioLoop& loop) : loop_(loop) {}

    std::unique_ptr<outgoing::ILink> dial(const outgoing::Address& address, outgoing::ILinkEvents& events) override;

 private:
    AsioLoop& loop_;
};

}  // namespace quelm::dcom::net
