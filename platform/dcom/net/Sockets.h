#pragma once

// What server and dialer need of the system's sockets: addresses as text, listening, connecting, and the options of
// connections.

#include <sys/socket.h>

#include <asio/error_code.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace quelm::dcom::net {

// Names address and port, the reason and what to do about it.
class ListenError : public std::runtime_error {
    using runtime_error::runtime_error;
};

// A socket address, IPv4 or IPv6.
struct Endpoint {
    sockaddr_storage address{};
    socklen_t size = sizeof(sockaddr_storage);

    // Of this socket's own end.
    static Endpoint ownOf(int descriptor);

    sockaddr* raw() { return reinterpret_cast<sockaddr*>(&address); }
    std::uint16_t port() const;
    // Numeric; that of an IPv4 client on an IPv6 socket is its IPv4 address.
    std::string host() const;
    // "192.0.2.7:51234" or "[2001:db8::1]:51234".
    std::string text() const;
};

// A socket that listens on a numeric address. Throws ListenError.
int openListener(const std::string& address, std::uint16_t port);
// Throws ListenError unless the descriptor is a TCP socket that is listening already.
void checkListener(int descriptor);

// A socket that has begun to connect to a numeric IPv4 address, with the options below.
struct Connecting {
    int descriptor = -1;
    int error = 0;  // errno, where there is no descriptor
};
Connecting beginConnecting(const std::string& address, std::uint16_t port);

// Without delays, and with a watch on dead machines: they are noticed after two minutes.
void setClientOptions(int descriptor);
// Sends the acknowledgement of what came now rather than with the next data.
void acknowledgeAtOnce(int descriptor);
// Ends all waits. Once waited for, room to send would be watched for ever, and whatever the other end acknowledges wake
// the loop: a descriptor that is taken out and put in again is watched for nothing. Closed where that fails.
asio::error_code watchAnew(asio::posix::stream_descriptor& descriptor);

}  // namespace quelm::dcom::net
