#pragma once

// The addresses at which a client's machine is tried: those that it says it has, in its order, then the one that it
// came from, because what it says may be a name, an address of another network card, or behind a translation.

#include <span>
#include <string>
#include <vector>

#include "dcom/orpc/RemoteCalls.h"
#include "dcom/outgoing/Dialer.h"

namespace quelm::dcom::outgoing {

// Each one costs a try, and a machine has hardly more network cards than that.
inline constexpr std::size_t mostCandidates = 8;

// host: numeric, where the client came from. At most mostCandidates, each once, all of them IPv4 and of one machine:
// no broadcast and no multicast addresses, and loopback ones for a client of this machine only.
std::vector<Address> candidates(std::span<const orpc::StringBinding> bindings, const std::string& host);

}  // namespace quelm::dcom::outgoing
