#pragma once

// The presentation contexts of one connection: by which numbers the client calls the interfaces that it bound to.

#include <cstdint>
#include <span>
#include <vector>

#include "dcom/rpc/CallHandler.h"
#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

class PresentationContexts {
 public:
    // Enough for any one BIND; after a log-on only the numbering of contexts is the limit.
    static constexpr std::size_t maxBeforeLogOn = 256;

    // Takes what a BIND or ALTER_CONTEXT offers and gives one result each, good until the next call. A number that is
    // offered again stands for the new interface from then on.
    std::span<const ContextResult> answer(const Bind& bind, CallHandler& handler, bool loggedOn);
    // nullptr for a number that no interface was bound to.
    const Uuid* find(std::uint16_t id) const;
    // Whether the client bound to interfaces that are open to all, and to no other.
    bool onlyOpenToAll(CallHandler& handler) const;
    void clear() { entries_.clear(); }

 private:
    struct Entry {
        std::uint16_t id;
        Uuid interfaceId;
    };
    ContextResult answerOne(const ContextElement& element, CallHandler& handler, bool loggedOn);
    bool add(std::uint16_t id, const Uuid& interfaceId, bool loggedOn);

    std::vector<Entry> entries_;  // in the order of their ids
    std::vector<ContextResult> results_;
};

}  // namespace quelm::dcom::rpc
