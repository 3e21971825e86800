#include "dcom/orpc/RemoteCalls.h"

#include <algorithm>
#include <charconv>

namespace quelm::dcom::orpc {

namespace {

// "name[port]" or "name"; nothing when it is no address over TCP that this end could try.
std::optional<StringBinding> bindingFrom(std::string_view text) {
    StringBinding binding;
    const std::size_t bracket = text.rfind('[');
    binding.address = text.substr(0, bracket);
    if (bracket != std::string_view::npos) {
        const std::string_view port = text.substr(bracket + 1);
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), binding.port);
        if (error != std::errc() || std::string_view(end, port.data() + port.size()) != "]" || binding.port == 0) {
            return std::nullopt;
        }
    }
    if (binding.address.empty() || binding.address.size() > longestAddress) {
        return std::nullopt;
    }
    return binding;
}

std::uint64_t readUnaligned64(ndr::Reader& in) {
    const std::uint64_t low = in.u32();
    return low | std::uint64_t{in.u32()} << 32;
}

ObjectReference readObjectReference(ndr::Reader& in) {
    ObjectReference reference;
    in.u32();  // flags: whether pings are needed, and pings do no harm
    reference.publicReferences = in.u32();
    reference.oxid = readUnaligned64(in);
    reference.oid = readUnaligned64(in);
    reference.ipid = in.uuid();
    return reference;
}

void writeOids(ndr::Writer& out, std::span<const std::uint64_t> oids) {
    if (oids.empty()) {
        return out.nullPointer();
    }
    out.pointer();
    out.u32(static_cast<std::uint32_t>(oids.size()));
    for (const std::uint64_t oid : oids) {
        out.u64(oid);
    }
}

template <class T>
std::optional<T> whole(const ndr::Reader& in, T value) {
    return in.good() ? std::optional<T>(std::move(value)) : std::nullopt;
}

}  // namespace

std::vector<StringBinding> readBindings(ndr::Reader& in) {
    const std::size_t units = in.u16();
    const std::size_t strings = in.u16();
    ndr::Reader array(in.bytes(units * 2));
    if (!in.good() || strings > units) {
        in.fail();
        return {};
    }
    std::vector<StringBinding> bindings;
    while (array.good() && array.position() < strings * 2) {
        const std::uint16_t tower = array.u16();
        if (tower == 0) {
            break;
        }
        std::string text;
        bool plain = true;
        for (std::uint16_t unit = array.u16(); unit != 0 && array.good(); unit = array.u16()) {
            plain = plain && unit > ' ' && unit < 0x7F && text.size() <= longestAddress + 8;
            if (plain) {
                text += static_cast<char>(unit);
            }
        }
        const auto binding = plain && tower == towerTcp ? bindingFrom(text) : std::nullopt;
        if (binding && bindings.size() < mostBindings &&
            std::find(bindings.begin(), bindings.end(), *binding) == bindings.end()) {
            bindings.push_back(*binding);
        }
    }
    if (!array.good()) {
        in.fail();
    }
    return bindings;
}

std::optional<RemoteReference> parseRemoteReference(std::span<const std::uint8_t> objectReference) {
    ndr::Reader in(objectReference);
    const std::uint32_t signature = in.u32();
    const std::uint32_t kind = in.u32();
    RemoteReference result;
    result.iid = in.uuid();
    result.object = readObjectReference(in);
    result.resolver = readBindings(in);
    if (signature != objectSignature || kind != standardReference) {
        return std::nullopt;
    }
    return whole(in, std::move(result));
}

void writeResolveOxid2(ndr::Writer& out, std::uint64_t oxid) {
    out.u64(oxid);
    out.u16(1);
    out.u32(1);
    out.u16(towerTcp);
}

std::optional<ResolvedOxid> parseResolveOxid2(std::span<const std::uint8_t> stub) {
    ndr::Reader in(stub);
    ResolvedOxid result;
    if (in.pointer()) {
        in.u32();  // the conformance, which the array's own count repeats
        result.bindings = readBindings(in);
    }
    result.remUnknownIpid = in.uuid();
    result.levelHint = in.u32();
    in.u16();  // the same major version for decades
    result.minorVersion = in.u16();
    result.status = in.u32();
    return whole(in, std::move(result));
}

void writeSimplePing(ndr::Writer& out, std::uint64_t setId) {
    out.u64(setId);
}

std::optional<std::uint32_t> parseSimplePing(std::span<const std::uint8_t> stub) {
    ndr::Reader in(stub);
    const std::uint32_t status = in.u32();
    return whole(in, status);
}

void writeComplexPing(ndr::Writer& out, std::uint64_t setId, std::uint16_t sequence, std::span<const std::uint64_t> add,
                      std::span<const std::uint64_t> remove) {
    out.u64(setId);
    out.u16(sequence);
    out.u16(static_cast<std::uint16_t>(add.size()));
    out.u16(static_cast<std::uint16_t>(remove.size()));
    writeOids(out, add);
    writeOids(out, remove);
}

std::optional<ComplexPingAnswer> parseComplexPing(std::span<const std::uint8_t> stub) {
    ndr::Reader in(stub);
    ComplexPingAnswer answer;
    answer.setId = in.u64();
    in.u16();  // the wish for pings further apart, which would only make a sink's end seen later
    answer.status = in.u32();
    return whole(in, answer);
}

void writeOrpcThis(ndr::Writer& out, const ObjectCallHeader& header) {
    out.u16(comMajorVersion);
    out.u16(header.minorVersion);
    out.u32(header.flags);
    out.u32(0);
    out.uuid(header.causality);
    out.nullPointer();
}

void writeRemQueryInterface(ndr::Writer& out, const ObjectCallHeader& header, const Uuid& ipid, const Uuid& iid,
                            std::uint32_t references) {
    writeOrpcThis(out, header);
    out.uuid(ipid);
    out.u32(references);
    out.u16(1);
    out.u32(1);
    out.uuid(iid);
}

std::optional<QueriedInterface> parseRemQueryInterface(std::span<const std::uint8_t> stub) {
    ndr::Reader in(stub);
    QueriedInterface queried;
    skipOrpcThat(in);
    HResult entry = E_NOINTERFACE;
    if (in.pointer() && in.u32() == 1) {
        in.align(8);
        entry = in.hresult();
        in.align(8);
        queried.reference = readObjectReference(in);
    }
    const HResult call = in.hresult();
    queried.result = failed(call) ? call : entry;
    return whole(in, queried);
}

void writeRemRelease(ndr::Writer& out, const ObjectCallHeader& header, std::span<const HeldReferences> held) {
    writeOrpcThis(out, header);
    out.u16(static_cast<std::uint16_t>(held.size()));
    out.u32(static_cast<std::uint32_t>(held.size()));
    for (const HeldReferences& entry : held) {
        out.uuid(entry.ipid);
        out.u32(entry.count);
        out.u32(0);  // private ones were never taken
    }
}

}  // namespace quelm::dcom::orpc
