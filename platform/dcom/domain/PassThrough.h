#pragma once

// A log-on with NTLM by an account that only the domain knows, seen from the RPC layer: what is asked of whoever can
// ask the domain, and what comes back.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dcom/RefusalReason.h"
#include "dcom/domain/Person.h"

namespace quelm::dcom {

struct NtlmQuestion {
    std::string host = {};    // where the client is, so that no host's log-ons hold up all others'
    std::string domain = {};  // as the client gave it, like user and workstation; may be empty
    std::string user = {};
    std::string workstation = {};
    std::array<std::uint8_t, 8> challenge{};  // that the client answered
    std::vector<std::uint8_t> lmResponse = {};
    std::vector<std::uint8_t> ntResponse = {};
};

struct NtlmAnswer {
    // A copy that nobody needs any longer leaves no key behind.
    ~NtlmAnswer();

    RefusalReason reason = RefusalReason::None;  // None: it is this person, and the client knows the password
    std::string detail = {};                     // of a reason that has one
    Person person = {};
    std::array<std::uint8_t, 16> sessionKey{};  // that follows from the client's response
};

class PassThrough {
 public:
    virtual ~PassThrough() = default;
    using Done = std::function<void(const NtlmAnswer&)>;
    // Has the domain asked, which may take seconds. done is called once, later, on the thread that asks, and after the
    // time limit at the latest; not any more once what is given here is gone, and the domain need then not be asked.
    // nullptr: too many wait already.
    virtual std::shared_ptr<void> ask(NtlmQuestion question, Done done) = 0;
};

}  // namespace quelm::dcom
