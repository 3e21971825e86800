#pragma once

// Puts a call's stub data together from its fragments, at either end of a connection: requests on the server's side,
// replies on the client's.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

class CallAssembly {
 public:
    // What all fragments of a call have in common.
    struct Key {
        std::uint32_t callId = 0;
        std::uint16_t contextId = 0;
        std::uint16_t opnum = 0;
        std::optional<Uuid> object;
        std::optional<std::uint32_t> securityId;  // none: without a log-on

        bool operator==(const Key&) const = default;
    };
    enum class Step : std::uint8_t { Begun, Continued, OutOfOrder, Mixed };

    // Whether a call has begun and its last fragment is still to come.
    bool active() const { return active_; }
    // Whether this fragment goes on with the call that has begun, or begins one.
    Step take(std::uint8_t flags, const Key& key);
    // The call was answered already: its further fragments are only checked.
    void drop() { dropped_ = true; }
    bool dropped() const { return dropped_; }

    // False, and nothing added, when the stub would grow beyond the limit.
    bool add(std::span<const std::uint8_t> stub, std::size_t limit);
    std::span<const std::uint8_t> stub() const { return stub_; }
    // The call is whole, or its client has given it up.
    void end() { active_ = false; }
    // Its client has given up the call of this id.
    void orphan(std::uint32_t callId);
    // Nothing of the call is needed any more; a large buffer is given back.
    void release();
    std::size_t bytesHeld() const { return stub_.capacity(); }

 private:
    bool active_ = false;
    bool dropped_ = false;
    Key key_;
    std::vector<std::uint8_t> stub_;
};

}  // namespace quelm::dcom::rpc
