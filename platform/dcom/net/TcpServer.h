#pragma once

// Owns the sockets of the RPC server: listens, accepts, and carries bytes between each client and its
// ServerConnection. Everything of the protocol itself is decided there.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "dcom/net/Sockets.h"
#include "dcom/rpc/CallHandler.h"
#include "dcom/rpc/ServerConnection.h"
#include "loop/AsioLoop.h"
#include "loop/MessageLoop.h"

namespace quelm::dcom::net {

struct TcpSettings {
    std::size_t maxConnections = 512;
    // Shares of it, so that neither a host nor an account, wherever it comes from, takes all.
    std::size_t maxOfHost = 128;
    std::size_t maxOfAccount = 256;
    std::chrono::milliseconds logOnTimeout{30'000};   // for a log-on to be complete; none when calls need no log-on
    std::chrono::milliseconds idleTimeout{600'000};   // after the last call, for a client that holds nothing
    std::chrono::milliseconds sendTimeout{120'000};   // for a client to take some of the output that waits for it
    std::chrono::milliseconds acceptRetry{500};       // pause after an accept that failed for want of resources
    std::function<void(std::string_view)> onTrouble;  // one plain line; repeats are summed up
};

class TcpServer {
 public:
    struct Listening {
        std::string address;  // numeric
        std::uint16_t port;
    };

    // Sockets live on the loop, time-outs on timers (the same loop, but in tests). Loops and protocol settings must
    // outlive the server.
    TcpServer(AsioLoop& loop, IMessageLoop& timers, const rpc::ServerSettings& protocol, TcpSettings settings);
    ~TcpServer();
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    // Listens on a numeric address ("127.0.0.1", "::", ...); port 0 takes any that is free. Gives the port. The
    // handler, which must outlive the server, serves the connections of this listener. Throws ListenError.
    std::uint16_t listen(const std::string& address, std::uint16_t port, rpc::CallHandler& handler);
    // The same for a TCP socket that is listening already; takes over the descriptor. Gives where it listens, which
    // its maker chose. Throws ListenError.
    Listening adopt(int descriptor, rpc::CallHandler& handler);

    // Stops listening and closes all connections, telling the handlers of an orderly end.
    void close();
    std::size_t connectionCount() const;

 private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quelm::dcom::net
