#pragma once

// Connections that this end opens to other machines, as bytes. Nothing here waits: whatever happens to a connection
// comes as a call of its events, each in a turn of the loop of its own.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace quelm::dcom::outgoing {

// Where a connection leads to.
struct Address {
    std::string host;  // numeric IPv4
    std::uint16_t port = 0;

    std::string text() const { return host + ':' + std::to_string(port); }
    bool operator==(const Address&) const = default;
};

// Any of them may end the link that calls it.
class ILinkEvents {
 public:
    virtual ~ILinkEvents() = default;
    virtual void connected() = 0;
    virtual void received(std::span<const std::uint8_t> data) = 0;
    // After awaitRoom(): more can be sent.
    virtual void writable() = 0;
    // The connection could not be made, or is at its end; nothing follows. reason: in the system's words; empty where
    // the other end closed it in order.
    virtual void ended(std::string_view reason) = 0;
};

// One connection. Its end closes it, and calls no event any more.
class ILink {
 public:
    virtual ~ILink() = default;
    // Sends what can be sent at once, and gives how many bytes that were. Once connected.
    virtual std::size_t send(std::span<const std::uint8_t> data) = 0;
    // Asks for writable(), in a later turn.
    virtual void awaitRoom() = 0;
};

class IDialer {
 public:
    virtual ~IDialer() = default;
    // Begins to connect. The events, which must outlive the link, are told of a failure too, never from within this.
    virtual std::unique_ptr<ILink> dial(const Address& address, ILinkEvents& events) = 0;
};

}  // namespace quelm::dcom::outgoing
