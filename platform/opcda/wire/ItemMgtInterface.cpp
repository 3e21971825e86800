#include "opcda/wire/ItemMgtInterface.h"

#include "opcda/Server.h"
#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

constexpr std::size_t definitionSize = 28;
constexpr std::size_t resultSize = 20;

// The pointers of a definition, whose targets stand behind all definitions.
struct DefinitionPointers {
    bool accessPath;
    bool itemId;
    bool blob;
};

DefinitionPointers readDefinition(Reader& in, ItemDefinition& item) {
    DefinitionPointers pointers{};
    pointers.accessPath = in.pointer();
    pointers.itemId = in.pointer();
    item.active = in.u32() != 0;
    item.clientHandle = in.u32();
    in.u32();  // size of the blob, which its conformance repeats
    pointers.blob = in.pointer();
    item.requestedType = in.u16();
    in.u16();  // reserved
    return pointers;
}

void writeResult(Writer& out, const ItemResult& result) {
    std::uint8_t* at = out.extend(resultSize);
    at = put(at, result.serverHandle);
    at = put(at, std::uint32_t{result.canonicalType});  // and a reserved half
    put(at, result.accessRights);                       // the blob stays empty
}

}  // namespace

ItemMgtInterface::ItemMgtInterface(OpcGroupObject& object) : group_(object.group()) {}

bool ItemMgtInterface::readDefinitions(Reader& in, CallBuffers& buffers) {
    buffers.definitions.clear();
    buffers.itemIds.clear();
    const std::uint32_t count = in.u32();
    if (count > group_.application().itemsPerCall()) {
        return false;
    }
    if (!readConformance(in, count, definitionSize)) {
        return true;
    }
    buffers.definitions.resize(count);
    buffers.itemIds.resize(count);
    std::vector<DefinitionPointers> pointers;
    pointers.reserve(count);
    for (ItemDefinition& item : buffers.definitions) {
        pointers.push_back(readDefinition(in, item));
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        if (pointers[i].accessPath) {
            in.wideString();
        }
        if (pointers[i].itemId) {
            buffers.itemIds[i] = in.wideString();
        }
        if (pointers[i].blob) {
            in.bytes(in.count(1));
        }
        buffers.definitions[i].itemId = buffers.itemIds[i];
    }
    return true;
}

Fault ItemMgtInterface::addOrValidate(bool add, Reader& in, Writer& out) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    HResult result = E_OUTOFMEMORY;
    if (readDefinitions(in, *buffers)) {
        if (!add) {
            in.u32();  // whether to send blobs back: there are none
        }
        if (!in.good()) {
            return Fault::BadStubData;
        }
        result = E_INVALIDARG;
        if (group_.isRemoved()) {
            result = E_FAIL;
        } else if (!buffers->definitions.empty()) {
            result = add ? group_.addItems(buffers->definitions, buffers->results)
                         : group_.validateItems(buffers->definitions, buffers->results);
        }
    }
    buffers->errors.clear();
    if (failed(result)) {
        out.nullPointer();
    } else {
        const std::vector<ItemResult>& results = buffers->results;
        out.buffer().reserve(out.buffer().size() + 32 + results.size() * (resultSize + sizeof(HResult)));
        writeArrayHead(out, results.size());
        for (const ItemResult& item : results) {
            writeResult(out, item);
            buffers->errors.push_back(item.error);
        }
    }
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemMgtInterface::addItems(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    return addOrValidate(true, in, out);
}

Fault ItemMgtInterface::validateItems(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    return addOrValidate(false, in, out);
}

template <class ReadMore, class Action>
Fault ItemMgtInterface::forHandles(Reader& in, Writer& out, ReadMore readMore, Action action) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > group_.application().itemsPerCall()) {
        writeErrors(out, E_OUTOFMEMORY, {});
        return Fault::None;
    }
    readU32Array(in, count, buffers->handles);
    readMore(*buffers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    HResult result = E_INVALIDARG;
    if (group_.isRemoved()) {
        result = E_FAIL;
    } else if (count != 0) {
        result = action(*buffers);
    }
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemMgtInterface::removeItems(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    return forHandles(
        in, out, [](CallBuffers&) {},
        [&](CallBuffers& buffers) { return group_.removeItems(buffers.handles, buffers.errors); });
}

Fault ItemMgtInterface::setActiveState(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    bool active = false;
    return forHandles(
        in, out, [&](CallBuffers&) { active = in.u32() != 0; },
        [&](CallBuffers& buffers) { return group_.setActiveState(buffers.handles, active, buffers.errors); });
}

Fault ItemMgtInterface::setClientHandles(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const auto readNumbers = [&](CallBuffers& buffers) {
        readU32Array(in, static_cast<std::uint32_t>(buffers.handles.size()), buffers.numbers);
    };
    return forHandles(in, out, readNumbers, [&](CallBuffers& buffers) {
        return group_.setClientHandles(buffers.handles, buffers.numbers, buffers.errors);
    });
}

Fault ItemMgtInterface::setDatatypes(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    std::vector<VarType> types;
    const auto readTypes = [&](CallBuffers& buffers) {
        if (readConformance(in, static_cast<std::uint32_t>(buffers.handles.size()), sizeof(VarType))) {
            types.resize(buffers.handles.size());
            for (VarType& type : types) {
                type = in.u16();
            }
        }
    };
    return forHandles(in, out, readTypes, [&](CallBuffers& buffers) {
        return group_.setDatatypes(buffers.handles, types, buffers.errors);
    });
}

Fault ItemMgtInterface::createEnumerator(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const Uuid iid = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (iid != iidEnumOpcItemAttributes && iid != dcom::orpc::iidUnknown) {
        return writeNoInterface(out, group_.isRemoved() ? E_FAIL : E_INVALIDARG);
    }
    Enumerator<ItemAttributes> items;
    const HResult result = group_.isRemoved() ? E_FAIL : group_.enumerateItems(items);
    out.hresult(writeEnumerator<EnumOpcItemAttributes>(out, context, iid, group_.memory(), std::move(items), result));
    return Fault::None;
}

}  // namespace quelm::opcda::wire
