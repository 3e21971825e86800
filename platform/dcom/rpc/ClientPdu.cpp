#include "dcom/rpc/ClientPdu.h"

#include <algorithm>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::rpc {

namespace {

constexpr std::size_t paddingBeforeAuth3 = 4;  // a field without meaning, which stands there in every client's message

void appendTrailer(ndr::Writer& body, const AuthTrailer& trailer) {
    if (!trailer.token.empty()) {
        body.align(4);
        putTrailer(body.extend(trailerSize), trailer.type, trailer.level, 0, trailer.contextId);
        body.bytes(trailer.token);
    }
}

}  // namespace

void appendBindRequest(std::vector<std::uint8_t>& out, const BindRequest& request) {
    const std::size_t start = out.size();
    ndr::Writer body(out);
    body.extend(headerSize);
    body.u16(ownMaxFragment);
    body.u16(ownMaxFragment);
    body.u32(request.group);
    body.u32(1);  // contexts, and three reserved bytes
    body.u16(request.contextId);
    body.u16(1);  // transfer syntaxes, and a reserved byte
    writeSyntax(body, {request.interfaceId, 0, 0});
    writeSyntax(body, ndrSyntax);
    appendTrailer(body, request.trailer);
    putHeader(out.data() + start, request.type, flagFirst | flagLast, body.position(), request.trailer.token.size(),
              request.callId);
}

void appendAuth3(std::vector<std::uint8_t>& out, std::uint32_t callId, const AuthTrailer& trailer) {
    const std::size_t start = out.size();
    ndr::Writer body(out);
    body.extend(headerSize + paddingBeforeAuth3);
    appendTrailer(body, trailer);
    putHeader(out.data() + start, PduType::Auth3, flagFirst | flagLast, body.position(), trailer.token.size(), callId);
}

std::optional<BindAnswer> parseBindAnswer(std::span<const std::uint8_t> pdu) {
    ndr::Reader in(pdu.subspan(headerSize));
    BindAnswer answer;
    answer.maxTransmit = in.u16();
    answer.maxReceive = in.u16();
    answer.group = in.u32();
    in.bytes(in.u16());  // the secondary address
    in.align(4);
    const std::uint8_t results = in.u8();
    in.bytes(3);
    const std::uint16_t result = in.u16();
    answer.accepted = results == 1 && result == resultAccepted;
    in.u16();      // the reason of a rejection
    in.bytes(20);  // the transfer syntax: there was no other to choose
    if (!in.good()) {
        return std::nullopt;
    }
    return answer;
}

bool parseAnswer(std::span<const std::uint8_t> pdu, const Header& header, Answer& answer) {
    ndr::Reader in(pdu.subspan(headerSize));
    in.u32();  // the hint
    answer.contextId = in.u16();
    in.u16();
    answer.stubOffset = callHeaderSize;
    if (header.type == PduType::Fault) {
        answer.fault = Fault{in.u32()};
    }
    return in.good();
}

}  // namespace quelm::dcom::rpc
