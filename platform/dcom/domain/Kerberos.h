#pragma once

// A client's log-on with a ticket of the domain's, seen from the server: what the RPC layer asks of whatever library
// knows how it is done.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "dcom/MessageKeys.h"
#include "dcom/RefusalReason.h"
#include "dcom/domain/Person.h"

namespace quelm::dcom {

// One log-on. The keys are there once it is complete.
class KerberosLogOn : public MessageKeys {
 public:
    struct Step {
        RefusalReason reason = RefusalReason::None;  // another one: the log-on is over
        std::string detail = {};                     // of a reason that has one
        bool isComplete = false;
    };
    // Takes a message of the client's and gives the answer, which may be empty.
    virtual Step take(std::span<const std::uint8_t> token, std::vector<std::uint8_t>& answer) = 0;

    // Of a log-on that is complete:
    virtual const Person& person() const = 0;
    virtual bool canSeal() const = 0;
    // The two ends agreed that the tokens cover headers as well.
    virtual void coverHeaders() = 0;
    // The exchange of signatures that ends a negotiation, before the first message: the client's over text is checked
    // and answered with one of our own. False, and no signature, when the client's is wrong.
    virtual bool exchangeSignatures(std::span<const std::uint8_t> text, std::span<const std::uint8_t> clientSignature,
                                    std::vector<std::uint8_t>& signature) = 0;
};

class Kerberos {
 public:
    virtual ~Kerberos() = default;
    // Must outlive the log-ons.
    virtual std::unique_ptr<KerberosLogOn> begin() = 0;
};

}  // namespace quelm::dcom
