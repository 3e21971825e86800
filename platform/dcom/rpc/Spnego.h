#pragma once

// The negotiation that Windows wraps around an NTLM log-on (SPNEGO): only as much of it as it takes to unwrap what the
// other end sends and to wrap what goes back. NTLM is the only mechanism there is to agree on.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace quelm::dcom::rpc::spnego {

// What a client's token says; the views lie in that token.
struct Token {
    bool initial = false;                      // the first one, with the client's mechanisms
    bool offersNtlm = false;                   // of an initial one: NTLM is among the mechanisms
    bool prefersNtlm = false;                  // and the first of them, so that the inner token is for it
    std::span<const std::uint8_t> mechanisms;  // of an initial one: the encoded list, which later signatures cover
    std::span<const std::uint8_t> inner;       // the token of the mechanism, or empty
    std::span<const std::uint8_t> signature;   // over the list of mechanisms, or empty
};

// Nothing when the token is not one of SPNEGO or malformed.
std::optional<Token> parse(std::span<const std::uint8_t> token);

enum class State : std::uint8_t { Completed = 0, Incomplete = 1, WantsSignature = 3 };

// The server's answer. Empty parts are left out; the first answer names the mechanism, which is always NTLM.
std::vector<std::uint8_t> response(State state, bool namesMechanism, std::span<const std::uint8_t> inner,
                                   std::span<const std::uint8_t> signature);

// The client's first token, which offers NTLM alone, and its answer to the server's challenge with the signature over
// the list that it offered.
std::vector<std::uint8_t> initial(std::span<const std::uint8_t> inner);
std::vector<std::uint8_t> answer(std::span<const std::uint8_t> inner, std::span<const std::uint8_t> signature);
// That list as the signatures cover it.
std::vector<std::uint8_t> offeredMechanisms();

}  // namespace quelm::dcom::rpc::spnego
