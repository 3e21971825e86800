#pragma once

// Slows down whoever guesses passwords: after each failed log-on the next one by the same account from the same host
// is looked at later. Others, the same account from another host included, wait for nothing.

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace quelm::dcom::rpc {

class GuessGuard {
 public:
    // The first of these failures cost nothing, so that a mistyped password does not. After them the delay doubles
    // with each failure from the first delay up to the longest, which is well below the time that a log-on may take.
    static constexpr unsigned freeFailures = 2;
    static constexpr std::chrono::milliseconds firstDelay{1'000};
    static constexpr std::chrono::milliseconds longestDelay{16'000};
    // Failures are forgotten after so long without another one.
    static constexpr std::chrono::milliseconds memory{600'000};
    // Accounts and hosts that failures are kept of; beyond them the longest past failure is forgotten.
    static constexpr std::size_t most = 4096;

    // How long the log-on by this account ("DOMAIN\user", "user@dns.name" or "user") from this host has to wait from
    // now on. Whatever domain and case: a guesser would only change them.
    std::chrono::milliseconds delay(std::string_view host, std::string_view account) const;
    void failed(std::string_view host, std::string_view account);
    void succeeded(std::string_view host, std::string_view account);

 private:
    using Key = std::pair<std::string, std::string>;
    struct Entry {
        unsigned failures = 0;
        std::uint64_t last = 0;  // in monotonic milliseconds
    };
    static Key keyOf(std::string_view host, std::string_view account);

    std::map<Key, Entry> entries_;
};

}  // namespace quelm::dcom::rpc
