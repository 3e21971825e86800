#include "opcda/wire/EnumeratorObjects.h"

#include <vector>

#include "opcda/wire/Parameters.h"
#include "opcda/wire/StreamFormats.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;
using dcom::orpc::ComObject;

namespace {

// Bytes of a reply: one item's attributes; the shortest text with its pointer; a reference with its pointer and the
// addresses of a machine with many names; what closes the array.
constexpr std::size_t itemAttributesSize = 44;
constexpr std::size_t leastText = 18;
constexpr std::size_t largestReference = 2048;
constexpr std::size_t sizeBehind = 16;

// The array of Next is a varying one: its conformance is what the client asked for, whatever there is.
void writeVaryingHead(Writer& out, std::uint32_t wanted, std::size_t fetched) {
    out.u32(wanted);
    out.u32(0);
    out.u32(static_cast<std::uint32_t>(fetched));
}

void writeFetched(Writer& out, std::uint32_t wanted, std::size_t fetched) {
    out.u32(static_cast<std::uint32_t>(fetched));
    out.hresult(fetched < wanted ? S_FALSE : S_OK);
}

// The client stays where it is and may ask for fewer.
void refuse(Writer& out) {
    out.u32(0);  // fetched
    out.hresult(E_OUTOFMEMORY);
}

void refuseVarying(Writer& out, ReplyRoom& room, std::uint32_t wanted) {
    room.clear();
    writeVaryingHead(out, wanted, 0);
    refuse(out);
}

void refuseAttributes(Writer& out, ReplyRoom& room) {
    room.clear();
    out.nullPointer();
    refuse(out);
}

void writeAttributes(Writer& out, const ItemAttributes& item) {
    out.pointer();  // access path
    out.pointer();  // item ID
    out.u32(item.active ? 1 : 0);
    out.u32(item.clientHandle);
    out.u32(item.serverHandle);
    out.u32(item.tag->accessRights());
    out.u32(0);  // size of the blob
    out.nullPointer();
    out.u16(item.requestedType);
    out.u16(item.tag->varType());
    out.u16(0);  // no engineering units
    out.align(4);
    out.pointer();  // their description
}

}  // namespace

Fault EnumeratorObject::nextCall(Reader& in, Writer& out, CallContext& context) {
    const std::uint32_t count = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    next(count, out, context);
    return Fault::None;
}

Fault EnumeratorObject::skipCall(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t count = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(skip(count) ? S_OK : S_FALSE);
    return Fault::None;
}

Fault EnumeratorObject::resetCall(Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    reset();
    out.hresult(S_OK);
    return Fault::None;
}

Fault EnumeratorObject::cloneCall(Reader& /*in*/, Writer& out, CallContext& context) {
    Hold memory = memory_.another();
    if (!memory.resize(footprint)) {
        return writeNoInterface(out, E_OUTOFMEMORY);
    }
    out.hresult(context.writeInterface(out, clone(std::move(memory)), iid_));
    return Fault::None;
}

template <class Text>
EnumString<Text>::EnumString(Enumerator<Text> texts, Hold memory)
    : ListEnumerator<EnumString<Text>, Text>(iidEnumString, std::move(texts), std::move(memory)) {}

template <class Text>
void EnumString<Text>::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    const auto part = this->list_.ahead(wanted);
    ReplyRoom room(out, this->memoryLeft());
    if (!room.has(part.size() * leastText)) {
        return refuseVarying(out, room, wanted);
    }
    writeVaryingHead(out, wanted, part.size());
    for (std::size_t i = 0; i < part.size(); ++i) {
        out.pointer();
    }
    for (const Text& text : part) {
        out.wideString(text);
        if (!room.has(sizeBehind)) {
            return refuseVarying(out, room, wanted);
        }
    }
    out.align(4);
    writeFetched(out, wanted, part.size());
    this->list_.skip(part.size());
}

template class EnumString<std::string>;
template class EnumString<std::string_view>;

template <const Uuid& ownIid, const Uuid& elementIid>
EnumObjects<ownIid, elementIid>::EnumObjects(Enumerator<std::shared_ptr<ComObject>> objects, Hold memory)
    : ListEnumerator<EnumObjects, std::shared_ptr<ComObject>>(ownIid, std::move(objects), std::move(memory)) {}

template <const Uuid& ownIid, const Uuid& elementIid>
void EnumObjects<ownIid, elementIid>::next(std::uint32_t wanted, Writer& out, CallContext& context) {
    const auto part = this->list_.ahead(wanted);
    ReplyRoom room(out, this->memoryLeft());
    // Before any reference is given, as none could be taken back.
    if (!room.has(part.size() * largestReference)) {
        return refuseVarying(out, room, wanted);
    }
    writeVaryingHead(out, wanted, part.size());
    // In an array all pointers come before what they point to, whereas the context writes both together: each is
    // written apart and its second half kept for later.
    std::vector<std::uint8_t> bodies;
    std::vector<std::uint8_t> one;
    for (const auto& object : part) {
        one.clear();
        Writer writer(one);
        context.writeInterface(writer, object, elementIid);
        writer.align(4);
        if (one.size() > 4) {
            out.pointer();
            bodies.insert(bodies.end(), one.begin() + 4, one.end());
        } else {
            out.nullPointer();
        }
    }
    out.bytes(bodies);
    writeFetched(out, wanted, part.size());
    this->list_.skip(part.size());
}

template class EnumObjects<iidEnumUnknown, dcom::orpc::iidUnknown>;
template class EnumObjects<iidEnumConnectionPoints, iidConnectionPoint>;

EnumOpcItemAttributes::EnumOpcItemAttributes(Enumerator<ItemAttributes> items, Hold memory)
    : ListEnumerator(iidEnumOpcItemAttributes, std::move(items), std::move(memory)) {}

void EnumOpcItemAttributes::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    static const OpcValue noUnits;
    const auto part = list_.ahead(wanted);
    ReplyRoom room(out, memoryLeft());
    if (!room.has(part.size() * 2 * itemAttributesSize)) {
        return refuseAttributes(out, room);
    }
    writeArrayHead(out, part.size());
    out.buffer().reserve(out.buffer().size() + part.size() * 2 * itemAttributesSize);
    for (const ItemAttributes& item : part) {
        writeAttributes(out, item);
    }
    for (const ItemAttributes& item : part) {
        out.wideString({});
        out.wideString(item.tag->Name());
        writeVariant(out, noUnits);
        if (!room.has(sizeBehind)) {
            return refuseAttributes(out, room);
        }
    }
    out.align(4);
    writeFetched(out, wanted, part.size());
    list_.skip(part.size());
}

EnumConnections::EnumConnections(Enumerator<ConnectionData> connections, Hold memory)
    : ListEnumerator(iidEnumConnections, std::move(connections), std::move(memory)) {}

void EnumConnections::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    const auto part = list_.ahead(wanted);
    std::size_t size = 0;
    for (const ConnectionData& connection : part) {
        size += connection.reference.size() + 2 * sizeBehind;
    }
    ReplyRoom room(out, memoryLeft());
    if (!room.has(size)) {
        return refuseVarying(out, room, wanted);
    }
    writeVaryingHead(out, wanted, part.size());
    for (const ConnectionData& connection : part) {
        out.pointer();
        out.u32(connection.cookie);
    }
    for (const ConnectionData& connection : part) {
        const auto length = static_cast<std::uint32_t>(connection.reference.size());
        out.u32(length);
        out.u32(length);
        out.bytes(connection.reference);
    }
    out.align(4);
    writeFetched(out, wanted, part.size());
    list_.skip(part.size());
}

EnumFormats::EnumFormats(Enumerator<Stream> streams, Hold memory)
    : ListEnumerator(iidEnumFormats, std::move(streams), std::move(memory)) {}

void EnumFormats::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    const auto part = list_.ahead(wanted);
    ReplyRoom room(out, memoryLeft());
    if (!room.has(part.size() * streamHeadSize)) {
        return refuseVarying(out, room, wanted);
    }
    writeVaryingHead(out, wanted, part.size());
    for (std::size_t i = 0; i < part.size(); ++i) {
        writeFormat(out);
    }
    for (const Stream stream : part) {
        writeFormatName(out, stream);
    }
    out.align(4);
    writeFetched(out, wanted, part.size());
    list_.skip(part.size());
}

}  // namespace quelm::opcda::wire
