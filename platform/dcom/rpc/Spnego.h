#pragma once

// The negotiation that Windows wraps around a log-on (SPNEGO): only as much of it as it takes to unwrap what the other
// end sends and to wrap what goes back. NTLM and Kerberos are the mechanisms there are to agree on.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace quelm::dcom::rpc::spnego {

inline constexpr std::array<std::uint8_t, 10> ntlmMechanism{0x2B, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x02, 0x02, 0x0A};
// Under either of the numbers that it has.
bool isKerberos(std::span<const std::uint8_t> mechanism);

// What a client's token says; the views lie in that token.
struct Token {
    bool initial = false;                      // the first one, with the client's mechanisms
    bool offersNtlm = false;                   // of an initial one: NTLM is among the mechanisms
    bool prefersNtlm = false;                  // and the first of them, so that the inner token is for it
    std::span<const std::uint8_t> preferred;   // of an initial one: the first of the mechanisms
    std::span<const std::uint8_t> mechanisms;  // of an initial one: the encoded list, which later signatures cover
    std::span<const std::uint8_t> inner;       // the token of the mechanism, or empty
    std::span<const std::uint8_t> signature;   // over the list of mechanisms, or empty
};

// Nothing when the token is not one of SPNEGO or malformed.
std::optional<Token> parse(std::span<const std::uint8_t> token);

enum class State : std::uint8_t { Completed = 0, Incomplete = 1, WantsSignature = 3 };

// The server's answer. Empty parts are left out; the first answer names the mechanism.
std::vector<std::uint8_t> response(State state, std::span<const std::uint8_t> mechanism,
                                   std::span<const std::uint8_t> inner, std::span<const std::uint8_t> signature);

// The client's first token, which offers NTLM alone, and its answer to the server's challenge with the signature over
// the list that it offered.
std::vector<std::uint8_t> initial(std::span<const std::uint8_t> inner);
std::vector<std::uint8_t> answer(std::span<const std::uint8_t> inner, std::span<const std::uint8_t> signature);
// That list as the signatures cover it.
std::vector<std::uint8_t> offeredMechanisms();

}  // namespace quelm::dcom::rpc::spnego
