#pragma once

// The first message of a Kerberos log-on, as far as it has to be looked at before the library takes it, and what is
// kept of those that were taken, so that none of them is taken twice.

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>

namespace quelm::dcom {

// The bare message, of which a client may frame what the others send bare; empty when it is none.
std::span<const std::uint8_t> bareApRequest(std::span<const std::uint8_t> token);

// Two messages with one of these are the same, whatever was done to the parts that no key protects.
using RequestDigest = std::array<std::uint8_t, 16>;
std::optional<RequestDigest> digestOf(std::span<const std::uint8_t> apRequest);

// A message is worth something for five minutes before and after the time that it names: the library refuses older
// ones, and this memory those that it has taken meanwhile. In memory and not in a file, because it is the network's
// thread that asks.
class ReplayMemory {
 public:
    static constexpr std::chrono::milliseconds memory{11 * 60'000};
    // Messages that are kept; beyond them the oldest is forgotten. Nobody adds to them without a right ticket, and who
    // sends a forgotten one again still lacks the key for the message that has to follow.
    static constexpr std::size_t most = 65'536;

    bool knows(const RequestDigest& digest) const;
    void add(const RequestDigest& digest);

 private:
    // By monotonic milliseconds and by what was taken then.
    std::multimap<std::uint64_t, RequestDigest> byTime_;
    std::map<RequestDigest, std::uint64_t> taken_;
};

}  // namespace quelm::dcom
