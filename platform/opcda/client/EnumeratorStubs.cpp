#include "opcda/client/EnumeratorStubs.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

HResult EnumeratorStub::Skip(std::uint32_t count) const {
    return tell(wire::Enumeration::Skip, "an enumerator's Skip", [&](Writer& out) { out.u32(count); });
}

HResult EnumeratorStub::Reset() const {
    return tell(wire::Enumeration::Reset, "an enumerator's Reset");
}

Reply<Maybe<Interface>> EnumeratorStub::Clone() const {
    return fetch(wire::Enumeration::Clone, "an enumerator's Clone");
}

Reply<std::vector<std::string>> IEnumString::Next(std::uint32_t wanted) const {
    Answer answer = ask(wire::Enumeration::Next, "IEnumString::Next", [&](Writer& out) { out.u32(wanted); });
    Reader& in = answer.in();
    Reply<std::vector<std::string>> reply;
    const std::uint32_t count = readVaryingHead(in, wanted, sizeof(std::uint32_t));
    Reader referents(in.bytes(std::size_t{count} * sizeof(std::uint32_t)));
    for (std::uint32_t i = 0; i < count && in.good(); ++i) {
        reply.out.push_back(referents.pointer() ? in.wideString() : std::string());
    }
    readFetched(in, count);
    reply.result = answer.done();
    return reply;
}

template <const Uuid& ownIid>
Reply<std::vector<Uuid>> EnumGuidStub<ownIid>::Next(std::uint32_t wanted) const {
    Answer answer = ask(wire::Enumeration::Next, "IEnumGUID::Next", [&](Writer& out) { out.u32(wanted); });
    Reader& in = answer.in();
    Reply<std::vector<Uuid>> reply;
    const std::uint32_t count = readVaryingHead(in, wanted, dcom::orpc::uuidSize);
    for (std::uint32_t i = 0; i < count; ++i) {
        reply.out.push_back(in.uuid());
    }
    readFetched(in, count);
    reply.result = answer.done();
    return reply;
}

template class EnumGuidStub<wire::iidEnumGuid>;
template class EnumGuidStub<wire::iidOpcEnumGuid>;

template <const Uuid& ownIid>
Reply<std::vector<Maybe<Interface>>> EnumObjectsStub<ownIid>::Next(std::uint32_t wanted) const {
    Answer answer = ask(wire::Enumeration::Next, "an enumerator's Next", [&](Writer& out) { out.u32(wanted); });
    Reader& in = answer.in();
    const std::uint32_t count = readVaryingHead(in, wanted, sizeof(std::uint32_t));
    Reader referents(in.bytes(std::size_t{count} * sizeof(std::uint32_t)));
    std::vector<std::span<const std::uint8_t>> references(count);
    for (auto& reference : references) {
        if (referents.pointer()) {
            reference = dcom::orpc::readInterfacePointer(in);
        }
        if (!in.good()) {
            break;
        }
    }
    readFetched(in, count);
    Reply<std::vector<Maybe<Interface>>> reply;
    reply.result = answer.done();
    for (const auto& reference : references) {
        reply.out.push_back(answer.object(reference));
    }
    return reply;
}

template class EnumObjectsStub<wire::iidEnumUnknown>;
template class EnumObjectsStub<wire::iidEnumConnectionPoints>;

namespace {

constexpr std::size_t attributesSize = 44;

// What a structure points to, which stands behind all structures.
struct AttributePointers {
    bool accessPath = false;
    bool itemId = false;
    bool blob = false;
    bool units = false;
};

AttributePointers readAttributes(Reader& in, ItemAttributes& item) {
    AttributePointers pointers;
    pointers.accessPath = in.pointer();
    pointers.itemId = in.pointer();
    item.active = in.u32() != 0;
    item.clientHandle = in.u32();
    item.serverHandle = in.u32();
    item.accessRights = in.u32();
    in.u32();  // size of the blob, which its conformance repeats
    pointers.blob = in.pointer();
    item.requestedType = in.u16();
    item.canonicalType = in.u16();
    item.unitsType = in.u16();
    pointers.units = in.pointer();
    return pointers;
}

void readPointed(Reader& in, const AttributePointers& pointers, ItemAttributes& item) {
    if (pointers.accessPath) {
        item.accessPath = in.wideString();
    }
    if (pointers.itemId) {
        item.itemId = in.wideString();
    }
    if (pointers.blob) {
        item.blob = readBlob(in);
    }
    if (pointers.units) {
        item.units = readValue(in);
    }
}

}  // namespace

Reply<Maybe<std::vector<ItemAttributes>>> IEnumOPCItemAttributes::Next(std::uint32_t wanted) const {
    Answer answer = ask(wire::Enumeration::Next, "IEnumOPCItemAttributes::Next", [&](Writer& out) { out.u32(wanted); });
    Reader& in = answer.in();
    Reply<Maybe<std::vector<ItemAttributes>>> reply;
    std::uint32_t count = 0;
    if (in.pointer()) {
        count = in.count(attributesSize);
        if (count > wanted) {
            in.fail();
            count = 0;
        }
        std::vector<ItemAttributes>& items = reply.out.emplace(count);
        std::vector<AttributePointers> pointers;
        pointers.reserve(count);
        for (ItemAttributes& item : items) {
            pointers.push_back(readAttributes(in, item));
        }
        for (std::size_t i = 0; i < count && in.good(); ++i) {
            readPointed(in, pointers[i], items[i]);
        }
    }
    readFetched(in, count);
    reply.result = answer.done();
    return reply;
}

Reply<Maybe<Interface>> IConnectionPointContainer::EnumConnectionPoints() const {
    return fetch(wire::ConnectionPointContainer::EnumConnectionPoints,
                 "IConnectionPointContainer::EnumConnectionPoints");
}

Reply<Maybe<Interface>> IConnectionPointContainer::FindConnectionPoint(const Uuid& callbackIid) const {
    return fetch(wire::ConnectionPointContainer::FindConnectionPoint, "IConnectionPointContainer::FindConnectionPoint",
                 [&](Writer& out) { out.uuid(callbackIid); });
}

Reply<Uuid> IConnectionPoint::GetConnectionInterface() const {
    Answer answer = ask(wire::ConnectionPoint::GetConnectionInterface, "IConnectionPoint::GetConnectionInterface");
    Reply<Uuid> reply;
    reply.out = answer.in().uuid();
    reply.result = answer.done();
    return reply;
}

Reply<Maybe<Interface>> IConnectionPoint::GetConnectionPointContainer() const {
    return fetch(wire::ConnectionPoint::GetConnectionPointContainer, "IConnectionPoint::GetConnectionPointContainer");
}

Reply<std::uint32_t> IConnectionPoint::Advise(std::span<const std::uint8_t> sink) const {
    return number(wire::ConnectionPoint::Advise, "IConnectionPoint::Advise", [&](Writer& out) {
        if (sink.empty()) {
            return out.nullPointer();
        }
        out.pointer();
        out.u32(static_cast<std::uint32_t>(sink.size()));
        out.u32(static_cast<std::uint32_t>(sink.size()));
        out.bytes(sink);
    });
}

HResult IConnectionPoint::Unadvise(std::uint32_t cookie) const {
    return tell(wire::ConnectionPoint::Unadvise, "IConnectionPoint::Unadvise", [&](Writer& out) { out.u32(cookie); });
}

Reply<Maybe<Interface>> IConnectionPoint::EnumConnections() const {
    return fetch(wire::ConnectionPoint::EnumConnections, "IConnectionPoint::EnumConnections");
}

}  // namespace quelm::opcda::client
