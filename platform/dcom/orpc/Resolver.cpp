#include "dcom/orpc/Resolver.h"

#include <algorithm>
#include <vector>

namespace quelm::dcom::orpc {

namespace {

constexpr std::uint32_t statusOk = 0;
constexpr std::uint32_t statusOutOfMemory = 14;
constexpr std::uint32_t statusInvalidOxid = 1910;
constexpr std::uint32_t statusInvalidSet = 1912;

// A counted array behind a unique pointer, its count stated elsewhere.
std::vector<std::uint64_t> readOids(ndr::Reader& in, std::uint16_t stated) {
    if (!in.pointer()) {
        return {};
    }
    const std::uint32_t count = in.count(sizeof(std::uint64_t));
    if (count != stated) {
        in.fail();
        return {};
    }
    std::vector<std::uint64_t> oids(count);
    for (std::uint64_t& oid : oids) {
        oid = in.u64();
    }
    return oids;
}

std::uint32_t statusOf(PingSets::Change change) {
    switch (change) {
        case PingSets::Change::Done:
            return statusOk;
        case PingSets::Change::UnknownSet:
            return statusInvalidSet;
        case PingSets::Change::TooManySets:
            break;
    }
    return statusOutOfMemory;
}

}  // namespace

std::uint32_t levelHint(const ObjectExporter& exporter, const rpc::Call& call) {
    return static_cast<std::uint32_t>(std::max(call.level, exporter.settings().minimumLevel));
}

Fault Resolver::invoke(const rpc::Call& call, ndr::Writer& out) {
    const auto method = methodOf<methods>(call.opnum);
    ndr::Reader in(call.stub);
    return method != nullptr ? (this->*method)(call, in, out) : Fault::OpnumRange;
}

Fault Resolver::resolveOxid(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    return resolve(call, in, out, Form::Plain);
}

Fault Resolver::resolveOxid2(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    return resolve(call, in, out, Form::WithVersion);
}

Fault Resolver::resolve(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out, Form form) {
    const std::uint64_t oxid = in.u64();
    const std::uint16_t stated = in.u16();
    const std::uint32_t protocols = in.count(sizeof(std::uint16_t));
    in.bytes(protocols * sizeof(std::uint16_t));  // there is only TCP to offer, whatever was asked for
    if (!in.good() || protocols != stated) {
        return Fault::BadStubData;
    }
    const bool known = oxid == exporter_.oxid();
    if (known) {
        exporter_.objectBindings(call.peer).writePointed(out);
    } else {
        out.nullPointer();
    }
    out.uuid(known ? exporter_.remUnknownIpid() : Uuid{});
    out.u32(known ? levelHint(exporter_, call) : 0);
    if (form == Form::WithVersion) {
        writeComVersion(out);
    }
    out.u32(known ? statusOk : statusInvalidOxid);
    return Fault::None;
}

Fault Resolver::simplePing(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const std::uint64_t setId = in.u64();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.u32(exporter_.ping(setId, call.peer) ? statusOk : statusInvalidSet);
    return Fault::None;
}

// Objects that are not known (any more) are passed over: clients forget to take released ones out, and one
// client puts in quite other numbers.
Fault Resolver::complexPing(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    std::uint64_t setId = in.u64();
    const std::uint16_t sequence = in.u16();
    const std::uint16_t addCount = in.u16();
    const std::uint16_t removeCount = in.u16();
    const auto add = readOids(in, addCount);
    const auto remove = readOids(in, removeCount);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    const auto change = exporter_.changePingSet(setId, call.peer, sequence, add, remove);
    out.u64(setId);
    out.u16(0);  // no wish for pings further apart
    out.u32(statusOf(change));
    return Fault::None;
}

// Is the machine alive? The younger form also tells its addresses.
Fault Resolver::serverAlive(const rpc::Call& /*call*/, ndr::Reader& /*in*/, ndr::Writer& out) {
    out.u32(statusOk);
    return Fault::None;
}

Fault Resolver::serverAlive2(const rpc::Call& call, ndr::Reader& /*in*/, ndr::Writer& out) {
    writeComVersion(out);
    exporter_.resolverBindings(call.peer).writePointed(out);
    out.u32(0);
    out.u32(statusOk);
    return Fault::None;
}

}  // namespace quelm::dcom::orpc
