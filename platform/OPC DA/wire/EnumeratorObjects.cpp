#include "OPC DA/wire/EnumeratorObjects.h"

#include <vector>

#include "DCOM/orpc/OrpcTypes.h"
#include "OPC DA/wire/Iids.h"
#include "OPC DA/wire/Parameters.h"
#include "OPC DA/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;
using dcom::orpc::ComObject;

namespace {

enum Opnum : std::uint16_t { Next = 3, Skip = 4, Reset = 5, Clone = 6 };

constexpr std::size_t itemAttributesSize = 44;

// The array of Next is a varying one: its conformance is what the client asked for, whatever there is.
void writeVaryingHead(Writer& out, std::uint32_t wanted, std::size_t fetched) {
    out.u32(wanted);
    out.u32(0);
    out.u32(static_cast<std::uint32_t>(fetched));
}

void writeFetched(Writer& out, std::uint32_t wanted, std::size_t fetched) {
    out.u32(static_cast<std::uint32_t>(fetched));
    out.u32(fetched < wanted ? S_FALSE : S_OK);
}

void writeAttributes(Writer& out, const ItemAttributes& item) {
    out.pointer();  // access path
    out.pointer();  // item ID
    out.u32(item.active ? 1 : 0);
    out.u32(item.clientHandle);
    out.u32(item.serverHandle);
    out.u32(item.accessRights);
    out.u32(0);  // size of the blob
    out.nullPointer();
    out.u16(item.requestedType);
    out.u16(item.canonicalType);
    out.u16(0);  // no engineering units
    out.align(4);
    out.pointer();  // their description
}

}  // namespace

std::uint32_t EnumeratorObject::invoke(std::uint16_t opnum, Reader& in, Writer& out, CallContext& context) {
    switch (opnum) {
        case Next:
        case Skip: {
            const std::uint32_t count = in.u32();
            if (!in.good()) {
                return dcom::faultBadStubData;
            }
            if (opnum == Next) {
                next(count, out, context);
            } else {
                out.u32(skip(count) ? S_OK : S_FALSE);
            }
            return 0;
        }
        case Reset:
            reset();
            out.u32(S_OK);
            return 0;
        case Clone:
            out.u32(context.writeInterface(out, clone(), iid_));
            return 0;
        default:
            return dcom::faultOpnumRange;
    }
}

template <class Text>
EnumString<Text>::EnumString(Enumerator<Text> texts)
    : ListEnumerator<EnumString<Text>, Text>(iidEnumString, std::move(texts)) {}

template <class Text>
void EnumString<Text>::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    const auto part = this->list_.next(wanted);
    writeVaryingHead(out, wanted, part.size());
    for (std::size_t i = 0; i < part.size(); ++i) {
        out.pointer();
    }
    for (const Text& text : part) {
        out.wideString(text);
    }
    out.align(4);
    writeFetched(out, wanted, part.size());
}

template class EnumString<std::string>;
template class EnumString<std::string_view>;

EnumUnknown::EnumUnknown(Enumerator<std::shared_ptr<ComObject>> objects)
    : ListEnumerator(iidEnumUnknown, std::move(objects)) {}

void EnumUnknown::next(std::uint32_t wanted, Writer& out, CallContext& context) {
    const auto part = list_.next(wanted);
    writeVaryingHead(out, wanted, part.size());
    // In an array all pointers come before what they point to, whereas the context writes both together: each is
    // written apart and its second half kept for later.
    std::vector<std::uint8_t> bodies;
    std::vector<std::uint8_t> one;
    for (const auto& object : part) {
        one.clear();
        Writer writer(one);
        context.writeInterface(writer, object, dcom::orpc::iidUnknown);
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
}

EnumOpcItemAttributes::EnumOpcItemAttributes(Enumerator<ItemAttributes> items)
    : ListEnumerator(iidEnumOpcItemAttributes, std::move(items)) {}

void EnumOpcItemAttributes::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    static const OpcValue noUnits;
    const auto part = list_.next(wanted);
    writeArrayHead(out, part.size());
    out.buffer().reserve(out.buffer().size() + part.size() * 2 * itemAttributesSize);
    for (const ItemAttributes& item : part) {
        writeAttributes(out, item);
    }
    for (const ItemAttributes& item : part) {
        out.wideString({});
        out.wideString(item.itemId);
        writeVariant(out, noUnits);
    }
    out.align(4);
    writeFetched(out, wanted, part.size());
}

}  // namespace quelm::opcda::wire
