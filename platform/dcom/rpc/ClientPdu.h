#pragma once

// The PDUs of the calling end: what it sends to bind and log on, and what it reads of the answers. Nothing that an
// answer says about its own sizes is believed unchecked.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/Uuid.h"
#include "dcom/Fault.h"
#include "dcom/rpc/Pdu.h"

namespace quelm::dcom::rpc {

// A BIND, or an ALTER_CONTEXT on a connection that is bound, for one interface of version 0.0 over NDR. An empty token
// leaves the security trailer out.
struct BindRequest {
    PduType type = PduType::Bind;
    std::uint32_t callId = 0;
    std::uint16_t contextId = 0;
    std::uint32_t group = 0;
    Uuid interfaceId;
    AuthTrailer trailer;  // type, level, contextId and token count
};
void appendBindRequest(std::vector<std::uint8_t>& out, const BindRequest& request);
// The third leg of a log-on, which has no answer.
void appendAuth3(std::vector<std::uint8_t>& out, std::uint32_t callId, const AuthTrailer& trailer);

// What came back to a BIND or an ALTER_CONTEXT.
struct BindAnswer {
    std::uint16_t maxTransmit = 0;
    std::uint16_t maxReceive = 0;
    std::uint32_t group = 0;
    bool accepted = false;  // the one context that was asked for
};
// Nothing when it does not decode.
std::optional<BindAnswer> parseBindAnswer(std::span<const std::uint8_t> pdu);

// A RESPONSE or FAULT.
struct Answer {
    std::uint16_t contextId = 0;
    std::size_t stubOffset = 0;
    Fault fault = Fault::None;  // of a FAULT
};
// False when the PDU is too short for its kind.
bool parseAnswer(std::span<const std::uint8_t> pdu, const Header& header, Answer& answer);

}  // namespace quelm::dcom::rpc
