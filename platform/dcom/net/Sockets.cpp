#include "dcom/net/Sockets.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

namespace quelm::dcom::net {

namespace {

constexpr int backlog = 128;

// A dead client machine is noticed after idle + interval * count = 2 minutes.
constexpr int keepAliveIdleSeconds = 60;
constexpr int keepAliveIntervalSeconds = 10;
constexpr int keepAliveCount = 6;

std::string withPort(const std::string& host, std::uint16_t port) {
    return host.find(':') == std::string::npos ? fmt::format("{}:{}", host, port) : fmt::format("[{}]:{}", host, port);
}

const sockaddr_in& v4(const sockaddr_storage& address) {
    return reinterpret_cast<const sockaddr_in&>(address);
}

const sockaddr_in6& v6(const sockaddr_storage& address) {
    return reinterpret_cast<const sockaddr_in6&>(address);
}

std::optional<Endpoint> parseEndpoint(const std::string& host, std::uint16_t port) {
    Endpoint endpoint;
    auto& in4 = reinterpret_cast<sockaddr_in&>(endpoint.address);
    auto& in6 = reinterpret_cast<sockaddr_in6&>(endpoint.address);
    if (inet_pton(AF_INET, host.c_str(), &in4.sin_addr) == 1) {
        in4.sin_family = AF_INET;
        in4.sin_port = htons(port);
        endpoint.size = sizeof in4;
        return endpoint;
    }
    if (inet_pton(AF_INET6, host.c_str(), &in6.sin6_addr) == 1) {
        in6.sin6_family = AF_INET6;
        in6.sin6_port = htons(port);
        endpoint.size = sizeof in6;
        return endpoint;
    }
    return std::nullopt;
}

void setOption(int descriptor, int level, int option, int value) {
    // A failure costs speed or a late notice of a dead client, never a connection.
    static_cast<void>(::setsockopt(descriptor, level, option, &value, sizeof value));
}

[[noreturn]] void failListen(const std::string& where, std::uint16_t port, int error) {
    std::string reason = std::strerror(error);
    std::string remedy = "check address and port in the DCOM settings";
    if (error == EACCES || error == EPERM) {
        reason = "permission denied";
        remedy = port == 135 ? "start as root, give the binary CAP_NET_BIND_SERVICE (setcap "
                               "'cap_net_bind_service=+ep' on the program's file), or set ActivationPort to a port "
                               "above 1023"
                             : "start as root, give the binary CAP_NET_BIND_SERVICE (setcap "
                               "'cap_net_bind_service=+ep' on the program's file), or set a port above 1023";
    } else if (error == EADDRINUSE) {
        reason = "address already in use";
        remedy = fmt::format(
            "stop the program that listens there (ss -ltnp 'sport = :{}' names it), or set another "
            "port in the DCOM settings",
            port);
    } else if (error == EADDRNOTAVAIL) {
        reason = "no network interface has this address";
        remedy = "correct the address in the DCOM settings";
    } else if (error == EAFNOSUPPORT) {
        reason = "not a numeric address of a kind that this machine has";
        remedy = "set a numeric IPv4 or IPv6 address in the DCOM settings";
    }
    throw ListenError(fmt::format("Cannot listen on {}: {}; {}", where, reason, remedy));
}

}  // namespace

Endpoint Endpoint::ownOf(int descriptor) {
    Endpoint own;
    ::getsockname(descriptor, own.raw(), &own.size);
    return own;
}

std::uint16_t Endpoint::port() const {
    return ntohs(address.ss_family == AF_INET6 ? v6(address).sin6_port : v4(address).sin_port);
}

std::string Endpoint::host() const {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address.ss_family != AF_INET6) {
        inet_ntop(AF_INET, &v4(address).sin_addr, text.data(), text.size());
    } else if (IN6_IS_ADDR_V4MAPPED(&v6(address).sin6_addr)) {
        // A client that dialled an IPv4 address must be told that one.
        inet_ntop(AF_INET, v6(address).sin6_addr.s6_addr + 12, text.data(), text.size());
    } else {
        inet_ntop(AF_INET6, &v6(address).sin6_addr, text.data(), text.size());
    }
    return text.data();
}

std::string Endpoint::text() const {
    return withPort(host(), port());
}

int openListener(const std::string& address, std::uint16_t port) {
    const std::string where = withPort(address, port);
    std::optional<Endpoint> endpoint = parseEndpoint(address, port);
    if (!endpoint) {
        failListen(where, port, EAFNOSUPPORT);
    }
    const int family = endpoint->address.ss_family;
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        failListen(where, port, errno);
    }
    setOption(descriptor, SOL_SOCKET, SO_REUSEADDR, 1);
    if (family == AF_INET6) {
        setOption(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, 1);  // so that "::" and "0.0.0.0" can both be set
    }
    if (::bind(descriptor, endpoint->raw(), endpoint->size) != 0 || ::listen(descriptor, backlog) != 0) {
        const int error = errno;
        ::close(descriptor);
        failListen(where, port, error);
    }
    return descriptor;
}

void checkListener(int descriptor) {
    int listening = 0;
    socklen_t size = sizeof listening;
    Endpoint own;
    if (::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || listening == 0 ||
        ::getsockname(descriptor, own.raw(), &own.size) != 0 ||
        (own.address.ss_family != AF_INET && own.address.ss_family != AF_INET6)) {
        throw ListenError(
            fmt::format("Cannot listen on the socket handed over as descriptor {}: it is not a "
                        "listening TCP socket; check the service's socket unit",
                        descriptor));
    }
}

Connecting beginConnecting(const std::string& address, std::uint16_t port) {
    std::optional<Endpoint> endpoint = parseEndpoint(address, port);
    if (!endpoint) {
        return {-1, EAFNOSUPPORT};
    }
    const int descriptor = ::socket(endpoint->address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return {-1, errno};
    }
    setClientOptions(descriptor);
    if (::connect(descriptor, endpoint->raw(), endpoint->size) != 0 && errno != EINPROGRESS) {
        const int error = errno;
        ::close(descriptor);
        return {-1, error};
    }
    return {descriptor, 0};
}

void setClientOptions(int descriptor) {
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(descriptor, IPPROTO_TCP, TCP_QUICKACK, 1);
    setOption(descriptor, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPIDLE, keepAliveIdleSeconds);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPINTVL, keepAliveIntervalSeconds);
    setOption(descriptor, IPPROTO_TCP, TCP_KEEPCNT, keepAliveCount);
}

void acknowledgeAtOnce(int descriptor) {
    setOption(descriptor, IPPROTO_TCP, TCP_QUICKACK, 1);
}

asio::error_code watchAnew(asio::posix::stream_descriptor& descriptor) {
    const int taken = descriptor.release();
    asio::error_code error;
    descriptor.assign(taken, error);
    if (error) {
        ::close(taken);
    }
    return error;
}

}  // namespace quelm::dcom::net
