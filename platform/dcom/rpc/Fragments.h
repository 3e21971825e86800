#pragma once

// Cuts the stub data of a call up into the fragments that the other end takes: replies on the server's side, requests
// on the client's.

#include <cstdint>
#include <span>
#include <vector>

#include "dcom/rpc/MessageGuard.h"
#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

// Makes REQUESTs or RESPONSEs of the stub data that stands at the end of out, behind the room for one header (see
// CallHeader::size) at start: in place when it fits one fragment, else by moving each piece once to where its
// fragment will stand. No guard: without protection. maxFragment: bytes, at least leastMaxFragment.
void cutIntoFragments(std::vector<std::uint8_t>& out, std::size_t start, const CallHeader& header,
                      std::size_t maxFragment, const MessageGuard* guard);

// Stub bytes of one fragment at most.
std::size_t pieceSize(const CallHeader& header, std::size_t maxFragment, const MessageGuard* guard);

// One fragment's share of the stub data, which may stand in two places.
struct StubPiece {
    std::span<const std::uint8_t> front;
    std::span<const std::uint8_t> back;
    bool isFirst = false;
    bool isLast = false;
    std::size_t remaining = 0;  // stub bytes of this and all later fragments
};
// Puts the fragment behind what stands in out. A piece that is not the last is of pieceSize().
void appendFragment(std::vector<std::uint8_t>& out, const CallHeader& header, const StubPiece& piece,
                    const MessageGuard* guard);

}  // namespace quelm::dcom::rpc
