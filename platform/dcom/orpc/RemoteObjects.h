#pragma once

// Objects of other processes that this server calls: the sinks that clients hand over to be called back. Whoever holds
// one sends it calls and never waits; connections, log-ons, pings and time limits are behind it.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Uuid.h"
#include "dcom/orpc/RemoteCalls.h"

namespace quelm::dcom::orpc {

// One interface of one object in another process. Its end takes back what waits, tells the other process that the
// object is let go of, and calls no handler any more.
class IRemoteObject {
 public:
    virtual ~IRemoteObject() = default;
    // Sends a call behind those that wait already. parameters: what stands behind the header of object calls, which
    // several objects may share. answered is called once, never from within this, when the other end has answered,
    // whatever it answered; not at all when the object is given up before.
    virtual void call(std::uint16_t opnum, std::shared_ptr<const std::vector<std::uint8_t>> parameters,
                      std::function<void()> answered) = 0;
};

// An object as a client handed it over.
struct RemoteObjectRequest {
    RemoteReference reference;
    Uuid iid;             // the interface that it is to be called by
    std::string client;   // how lines for the operator name its client: "OPC client 192.0.2.7:51234 (account ...)"
    std::string account;  // of the client, as it logged on; with the host it owns what is held for the object
    std::string host;     // numeric address, without port, that the client came from: the last one to be tried
    // Called once, never from within connect(), when the object cannot be called any more: it was refused, is gone, or
    // was not reached for too long. The operator has been told. May end the object.
    std::function<void()> givenUp;
};

class IRemoteObjects {
 public:
    virtual ~IRemoteObjects() = default;
    // Begins to reach the object; nothing is sent from within this, because a client may not be called before its own
    // call has been answered. nullptr: so many are held for this client already.
    virtual std::unique_ptr<IRemoteObject> connect(RemoteObjectRequest request) = 0;
};

}  // namespace quelm::dcom::orpc
