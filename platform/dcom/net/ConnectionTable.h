#pragma once

// All connections of the RPC server, and who may be among them: no host and no account may take so many that others
// find no room, and whoever only sits there goes before somebody is turned away.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "dcom/net/RepeatFilter.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::net {

// One connection, as far as it concerns the others.
class IConnection {
 public:
    virtual ~IConnection() = default;

    virtual const rpc::Peer& peer() const = 0;
    // The user who logged on first, without domain and in one case, so that neither makes him another; empty before.
    virtual const std::string& user() const = 0;
    // Also true where calls need no log-on.
    virtual bool isLoggedOn() const = 0;
    // When it last carried something, in monotonic milliseconds.
    virtual std::uint64_t lastUse() const = 0;
    // Its client holds nothing by it, waits for no answer and has none to take.
    virtual bool isSpare() const = 0;
    // Ends it, and takes it out of the table.
    virtual void close(bool abrupt) = 0;
};

class ConnectionTable {
 public:
    // Connections at most; see TcpSettings.
    struct Limits {
        std::size_t all;
        std::size_t ofHost;
        std::size_t ofUser;
    };

    // The filter, which must outlive the table, takes a line for each connection that is closed to make room.
    ConnectionTable(const Limits& limits, RepeatFilter& lines) : limits_(limits), lines_(lines) {}

    void add(std::shared_ptr<IConnection> connection);
    void remove(const rpc::Peer& peer) { connections_.erase(peer.id); }
    std::size_t size() const { return connections_.size(); }
    void closeAll();

    // Make room where there is none. Empty: the client at this address ("192.0.2.7:51234") can come in, the connection,
    // which has just logged on, can stay. Else why not, and what to do about it.
    std::string refusalOf(const rpc::Peer& newcomer);
    std::string refusalOf(const IConnection& loggedOn);
    // For want of something else than places, which the reason names. False when no connection can be spared.
    bool makeRoom(std::string_view reason);

 private:
    template <class Condition>
    std::size_t count(Condition condition) const;
    template <class Condition>
    bool makeRoomAmong(Condition condition, std::string_view reason);
    void spare(IConnection& connection, std::string_view reason);

    Limits limits_;
    RepeatFilter& lines_;
    std::unordered_map<std::uint64_t, std::shared_ptr<IConnection>> connections_;
};

}  // namespace quelm::dcom::net
