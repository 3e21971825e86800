#include "OPC DA/wire/ItemMgtInterface.h"

#include "OPC DA/wire/EnumeratorObjects.h"
#include "OPC DA/wire/Iids.h"
#include "OPC DA/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

enum Opnum : std::uint16_t {
    AddItems = 3,
    ValidateItems = 4,
    RemoveItems = 5,
    SetActiveState = 6,
    SetClientHandles = 7,
    SetDatatypes = 8,
    CreateEnumerator = 9,
};

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

std::uint32_t ItemMgtInterface::invoke(std::uint16_t opnum, Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    switch (opnum) {
        case AddItems:
            return addOrValidate(true, in, out);
        case ValidateItems:
            return addOrValidate(false, in, out);
        case RemoveItems:
            return removeItems(in, out);
        case SetActiveState:
            return setActiveState(in, out);
        case SetClientHandles:
            return setClientHandles(in, out);
        case SetDatatypes:
            return setDatatypes(in, out);
        case CreateEnumerator:
            return createEnumerator(in, out, context);
        default:
            return dcom::faultOpnumRange;
    }
}

void ItemMgtInterface::readHandles(Reader& in) {
    readU32Array(in, in.u32(), handles_);
}

void ItemMgtInterface::readDefinitions(Reader& in) {
    definitions_.clear();
    itemIds_.clear();
    const std::uint32_t count = in.u32();
    if (!readConformance(in, count, definitionSize)) {
        return;
    }
    definitions_.resize(count);
    itemIds_.resize(count);
    std::vector<DefinitionPointers> pointers;
    pointers.reserve(count);
    for (ItemDefinition& item : definitions_) {
        pointers.push_back(readDefinition(in, item));
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        if (pointers[i].accessPath) {
            in.wideString();
        }
        if (pointers[i].itemId) {
            itemIds_[i] = in.wideString();
        }
        if (pointers[i].blob) {
            in.bytes(in.count(1));
        }
        definitions_[i].itemId = itemIds_[i];
    }
}

std::uint32_t ItemMgtInterface::addOrValidate(bool add, Reader& in, Writer& out) {
    readDefinitions(in);
    if (!add) {
        in.u32();  // whether to send blobs back: there are none
    }
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    HResult result = E_INVALIDARG;
    if (group_.isRemoved()) {
        result = E_FAIL;
    } else if (!definitions_.empty()) {
        result = add ? group_.addItems(definitions_, results_) : group_.validateItems(definitions_, results_);
    }
    errors_.clear();
    if (failed(result)) {
        out.nullPointer();
    } else {
        out.buffer().reserve(out.buffer().size() + 32 + results_.size() * (resultSize + sizeof(HResult)));
        writeArrayHead(out, results_.size());
        for (const ItemResult& item : results_) {
            writeResult(out, item);
            errors_.push_back(item.error);
        }
    }
    writeErrors(out, result, errors_);
    return 0;
}

// What is common to all calls that give one result for each item and nothing else.
template <class Action>
std::uint32_t ItemMgtInterface::answer(Reader& in, Writer& out, Action action) {
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    HResult result = E_INVALIDARG;
    if (group_.isRemoved()) {
        result = E_FAIL;
    } else if (!handles_.empty()) {
        result = action();
    }
    writeErrors(out, result, errors_);
    return 0;
}

std::uint32_t ItemMgtInterface::removeItems(Reader& in, Writer& out) {
    readHandles(in);
    return answer(in, out, [&] { return group_.removeItems(handles_, errors_); });
}

std::uint32_t ItemMgtInterface::setActiveState(Reader& in, Writer& out) {
    readHandles(in);
    const bool active = in.u32() != 0;
    return answer(in, out, [&] { return group_.setActiveState(handles_, active, errors_); });
}

std::uint32_t ItemMgtInterface::setClientHandles(Reader& in, Writer& out) {
    readHandles(in);
    readU32Array(in, static_cast<std::uint32_t>(handles_.size()), clientHandles_);
    return answer(in, out, [&] { return group_.setClientHandles(handles_, clientHandles_, errors_); });
}

std::uint32_t ItemMgtInterface::setDatatypes(Reader& in, Writer& out) {
    readHandles(in);
    std::vector<VarType> types;
    if (readConformance(in, static_cast<std::uint32_t>(handles_.size()), sizeof(VarType))) {
        types.resize(handles_.size());
        for (VarType& type : types) {
            type = in.u16();
        }
    }
    return answer(in, out, [&] { return group_.setDatatypes(handles_, types, errors_); });
}

std::uint32_t ItemMgtInterface::createEnumerator(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const dcom::Uuid iid = in.uuid();
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    if (group_.isRemoved()) {
        return writeNoInterface(out, E_FAIL);
    }
    const auto enumerator = std::make_shared<EnumOpcItemAttributes>(group_.enumerateItems());
    const HResult result = context.writeInterface(out, enumerator, iid);
    out.u32(failed(result) || group_.itemCount() != 0 ? result : S_FALSE);
    return 0;
}

}  // namespace quelm::opcda::wire
