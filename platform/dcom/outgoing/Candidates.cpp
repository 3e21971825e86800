#include "dcom/outgoing/Candidates.h"

#include <arpa/inet.h>

#include <algorithm>
#include <optional>

namespace quelm::dcom::outgoing {

namespace {

constexpr std::uint16_t activationPort = 135;
constexpr std::size_t mostOfHost = 2;  // of the candidates, when the bindings alone would be too many

// The first of an IPv4 address's four numbers.
std::optional<unsigned> firstNumber(const std::string& host) {
    in_addr binary{};
    if (inet_pton(AF_INET, host.c_str(), &binary) != 1) {
        return std::nullopt;
    }
    return ntohl(binary.s_addr) >> 24U;
}

bool canBeTried(const std::string& address, const std::string& host) {
    constexpr unsigned loopback = 127;
    constexpr unsigned firstMulticast = 224;
    const auto first = firstNumber(address);
    return first && *first != 0 && *first < firstMulticast && (*first != loopback || firstNumber(host) == loopback);
}

}  // namespace

std::vector<Address> candidates(std::span<const orpc::StringBinding> bindings, const std::string& host) {
    std::vector<Address> result;
    const auto add = [&](const std::string& address, std::uint16_t port, std::size_t most) {
        const Address candidate{address, port == 0 ? activationPort : port};
        if (canBeTried(address, host) && result.size() < most &&
            std::find(result.begin(), result.end(), candidate) == result.end()) {
            result.push_back(candidate);
        }
    };
    for (const orpc::StringBinding& binding : bindings) {
        add(binding.address, binding.port, mostCandidates - mostOfHost);
    }
    for (const orpc::StringBinding& binding : bindings) {
        add(host, binding.port, mostCandidates);
    }
    if (bindings.empty()) {
        add(host, activationPort, mostCandidates);
    }
    return result;
}

}  // namespace quelm::dcom::outgoing
