#include "dcom/rpc/Pdu.h"

#include <cstring>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"

namespace quelm::dcom::rpc {

namespace {

constexpr std::uint8_t protocolVersion = 5;
// The other one is that of Windows 95's early DCOM; the PDUs are the same.
constexpr std::uint8_t newestMinorVersion = 1;

template <class T>
T get(std::span<const std::uint8_t> raw, std::size_t at) {
    T value{};
    std::memcpy(&value, raw.data() + at, sizeof value);
    return value;
}

template <class T>
void put(std::uint8_t* at, T value) {
    std::memcpy(at, &value, sizeof value);
}

Syntax readSyntax(ndr::Reader& in) {
    Syntax syntax;
    syntax.uuid = in.uuid();
    syntax.versionMajor = in.u16();
    syntax.versionMinor = in.u16();
    return syntax;
}

}  // namespace

void putHeader(std::uint8_t* at, PduType type, std::uint8_t flags, std::size_t fragmentLength, std::size_t authLength,
               std::uint32_t callId) {
    constexpr std::array<std::uint8_t, 4> littleEndian{0x10, 0, 0, 0};
    at[0] = protocolVersion;
    at[1] = 0;
    at[2] = static_cast<std::uint8_t>(type);
    at[3] = flags;
    std::memcpy(at + 4, littleEndian.data(), littleEndian.size());
    put(at + 8, static_cast<std::uint16_t>(fragmentLength));
    put(at + 10, static_cast<std::uint16_t>(authLength));
    put(at + 12, callId);
}

void writeSyntax(ndr::Writer& out, const Syntax& syntax) {
    out.uuid(syntax.uuid);
    out.u16(syntax.versionMajor);
    out.u16(syntax.versionMinor);
}

RefusalReason parseHeader(std::span<const std::uint8_t> raw, Header& header) {
    header.type = static_cast<PduType>(raw[2]);
    header.flags = raw[3];
    header.fragmentLength = get<std::uint16_t>(raw, 8);
    header.authLength = get<std::uint16_t>(raw, 10);
    header.callId = get<std::uint32_t>(raw, 12);
    if (raw[0] != protocolVersion || raw[1] > newestMinorVersion) {
        return RefusalReason::NotRpc;
    }
    // Only the first byte tells how numbers and characters are coded; the rest is the floating-point form (IEEE).
    if (raw[4] != 0x10 || raw[5] != 0) {
        if (constexpr std::uint8_t integers = 0xF0; (raw[4] & integers) == 0) {
            header.callId = __builtin_bswap32(header.callId);
        }
        return RefusalReason::NotLittleEndian;
    }
    const bool handshake =
        header.type == PduType::Bind || header.type == PduType::AlterContext || header.type == PduType::Auth3;
    if (header.fragmentLength < headerSize || header.fragmentLength > (handshake ? maxHandshake : ownMaxFragment)) {
        return RefusalReason::LengthOutOfRange;
    }
    return RefusalReason::None;
}

bool parseTrailer(std::span<const std::uint8_t> pdu, const Header& header, std::size_t bodyOffset,
                  AuthTrailer& trailer) {
    const std::size_t behindBody = trailerSize + header.authLength;
    if (pdu.size() < bodyOffset + behindBody) {
        return false;
    }
    trailer.offset = pdu.size() - behindBody;
    trailer.type = pdu[trailer.offset];
    trailer.level = pdu[trailer.offset + 1];
    trailer.padLength = pdu[trailer.offset + 2];
    trailer.contextId = get<std::uint32_t>(pdu, trailer.offset + 4);
    trailer.token = pdu.subspan(trailer.offset + trailerSize);
    return trailer.padLength <= trailer.offset - bodyOffset;
}

std::optional<Bind> parseBind(std::span<const std::uint8_t> pdu) {
    ndr::Reader in(pdu.subspan(headerSize));
    Bind bind;
    bind.maxTransmit = in.u16();
    bind.maxReceive = in.u16();
    bind.group = in.u32();
    const std::size_t contexts = in.u8();
    in.bytes(3);
    for (std::size_t i = 0; i < contexts && in.good(); ++i) {
        ContextElement& element = bind.contexts.emplace_back();
        in.align(4);
        element.id = in.u16();
        const std::size_t transfers = in.u8();
        in.u8();
        element.interface = readSyntax(in);
        for (std::size_t k = 0; k < transfers && in.good(); ++k) {
            element.transfers.push_back(readSyntax(in));
        }
    }
    if (!in.good()) {
        return std::nullopt;
    }
    return bind;
}

bool parseRequest(std::span<const std::uint8_t> pdu, const Header& header, Request& request) {
    request.hasObject = (header.flags & flagObject) != 0;
    request.stubOffset = request.hasObject ? callHeaderSize + 16 : callHeaderSize;
    if (pdu.size() < request.stubOffset) {
        return false;
    }
    request.contextId = get<std::uint16_t>(pdu, 20);
    request.opnum = get<std::uint16_t>(pdu, 22);
    if (request.hasObject) {
        std::memcpy(request.object.bytes.data(), pdu.data() + callHeaderSize, 16);
    }
    return true;
}

void appendBindAck(std::vector<std::uint8_t>& out, const BindAck& ack) {
    const std::size_t start = out.size();
    ndr::Writer body(out);
    body.extend(headerSize);
    body.u16(ack.maxTransmit);
    body.u16(ack.maxReceive);
    body.u32(ack.group);
    if (ack.secondaryAddress.empty()) {
        body.u16(0);
    } else {
        body.u16(static_cast<std::uint16_t>(ack.secondaryAddress.size() + 1));
        std::memcpy(body.extend(ack.secondaryAddress.size()), ack.secondaryAddress.data(), ack.secondaryAddress.size());
        body.u8(0);
    }
    body.align(4);
    body.u32(static_cast<std::uint32_t>(ack.results.size()));
    for (const ContextResult& result : ack.results) {
        body.u16(result.result);
        body.u16(result.reason);
        writeSyntax(body, result.transfer);
    }
    if (!ack.trailer.token.empty()) {
        putTrailer(body.extend(trailerSize), ack.trailer.type, ack.trailer.level, 0, ack.trailer.contextId);
        body.bytes(ack.trailer.token);
    }
    putHeader(out.data() + start, ack.type, flagFirst | flagLast | ack.flags, body.position(), ack.trailer.token.size(),
              ack.callId);
}

void appendBindNak(std::vector<std::uint8_t>& out, std::uint32_t callId, std::uint16_t reason) {
    constexpr std::size_t size = 24;
    const std::size_t start = out.size();
    out.resize(start + size);
    std::uint8_t* const at = out.data() + start;
    putHeader(at, PduType::BindNak, flagFirst | flagLast, size, 0, callId);
    put(at + 16, reason);
    at[18] = 1;  // one protocol version follows: 5.0
    at[19] = protocolVersion;
}

void appendFault(std::vector<std::uint8_t>& out, std::uint32_t callId, std::uint16_t contextId, Fault fault,
                 std::uint8_t flags) {
    const std::size_t start = out.size();
    out.resize(start + faultSize);
    std::uint8_t* const at = out.data() + start;
    putHeader(at, PduType::Fault, flagFirst | flagLast | flags, faultSize, 0, callId);
    put(at + 16, static_cast<std::uint32_t>(faultSize - callHeaderSize));
    put(at + 20, contextId);
    put(at + 24, fault);
}

void putCallHeader(std::uint8_t* at, const CallHeader& header, std::uint8_t flags, std::size_t fragmentLength,
                   std::size_t authLength, std::size_t allocHint) {
    const std::uint8_t objectFlag = header.object ? flagObject : 0;
    putHeader(at, header.type, flags | objectFlag, fragmentLength, authLength, header.callId);
    put(at + 16, static_cast<std::uint32_t>(allocHint));
    put(at + 20, header.contextId);
    put(at + 22, header.opnum);  // of a response: cancel count and a reserved byte
    if (header.object) {
        std::memcpy(at + callHeaderSize, header.object->bytes.data(), header.object->bytes.size());
    }
}

void putTrailer(std::uint8_t* at, std::uint8_t type, std::uint8_t level, std::size_t padLength,
                std::uint32_t contextId) {
    at[0] = type;
    at[1] = level;
    at[2] = static_cast<std::uint8_t>(padLength);
    at[3] = 0;
    put(at + 4, contextId);
}

}  // namespace quelm::dcom::rpc
