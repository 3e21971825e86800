#include "dcom/client/Names.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <memory>

#include "base/Text.h"

namespace quelm::dcom::client {

namespace {

std::string textOf(const in_addr& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    return inet_ntop(AF_INET, &address, text.data(), text.size()) == nullptr ? std::string() : std::string(text.data());
}

const sockaddr_in& ipv4(const sockaddr* address) {
    return *reinterpret_cast<const sockaddr_in*>(address);
}

}  // namespace

bool isAddress(const std::string& host) {
    in_addr address{};
    return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

std::vector<std::string> lookUpName(const std::string& host) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &wanted, &found) != 0) {
        return {};
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> all(found, freeaddrinfo);
    std::vector<std::string> addresses;
    for (const addrinfo* entry = all.get(); entry != nullptr; entry = entry->ai_next) {
        std::string address = textOf(ipv4(entry->ai_addr).sin_addr);
        if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) {
            addresses.push_back(std::move(address));
        }
    }
    return addresses;
}

std::string ownAddressTowards(const std::string& address) {
    constexpr std::uint16_t anyPort = 135;
    sockaddr_in there{};
    there.sin_family = AF_INET;
    there.sin_port = htons(anyPort);
    sockaddr_in here{};
    socklen_t size = sizeof here;
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::string own;
    if (descriptor >= 0 && inet_pton(AF_INET, address.c_str(), &there.sin_addr) == 1 &&
        ::connect(descriptor, reinterpret_cast<sockaddr*>(&there), sizeof there) == 0 &&
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&here), &size) == 0) {
        own = textOf(here.sin_addr);
    }
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    return own;
}

std::string computerName() {
    constexpr std::size_t longest = 15;
    std::array<char, HOST_NAME_MAX + 1> host{};
    const bool isKnown = gethostname(host.data(), host.size() - 1) == 0;
    const std::string name = isKnown ? host.data() : "";
    const std::string label = name.substr(0, name.find('.'));
    return toUpperCase(leftCharacters(label.empty() ? "LOCALHOST" : label, longest));
}

}  // namespace quelm::dcom::client
