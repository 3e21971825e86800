#include "opcda/wire/ItemPropertiesInterface.h"

#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

// What GetItemProperties and LookupItemIDs both ask with.
struct PropertyRequest {
    std::string itemId;
    std::vector<std::uint32_t> ids;
    bool tooMany = false;  // to be answered; the ids are not read then
};

PropertyRequest readRequest(Reader& in) {
    // An item has six; who asks for each of them a hundred times is served all the same.
    constexpr std::uint32_t mostIds = 1000;
    PropertyRequest request;
    request.itemId = in.wideString();
    const std::uint32_t count = in.u32();
    request.tooMany = count > mostIds;
    if (!request.tooMany) {
        readU32Array(in, count, request.ids);
    }
    return request;
}

// lookUp(request, errors) writes an array for the properties that were asked for, gives each its result, and gives that
// of the whole; on failure it writes nothing.
template <class LookUp>
Fault answer(Reader& in, Writer& out, LookUp lookUp) {
    const PropertyRequest request = readRequest(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::vector<HResult> errors;
    HResult result = request.tooMany ? E_OUTOFMEMORY : E_INVALIDARG;
    if (!request.ids.empty()) {
        result = lookUp(request, errors);
    }
    if (failed(result)) {
        out.nullPointer();
    }
    writeErrors(out, result, errors);
    return Fault::None;
}

void writeDescriptions(Writer& out, const std::vector<PropertyDescription>& properties) {
    writeArrayHead(out, properties.size());
    for (const PropertyDescription& property : properties) {
        out.u32(property.id);
    }
    writeArrayHead(out, properties.size());
    for (std::size_t i = 0; i < properties.size(); ++i) {
        out.pointer();
    }
    for (const PropertyDescription& property : properties) {
        out.wideString(property.text);
    }
    out.align(4);
    writeArrayHead(out, properties.size());
    for (const PropertyDescription& property : properties) {
        out.u16(property.type);
    }
}

}  // namespace

Fault ItemPropertiesInterface::queryAvailable(Server& server, Reader& in, Writer& out,
                                              dcom::orpc::CallContext& /*context*/) {
    const std::string itemId = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::vector<PropertyDescription> properties;
    const HResult result = server.properties().available(itemId, properties);
    if (failed(result)) {
        out.u32(0);
        out.nullPointer();
        out.nullPointer();
        out.nullPointer();
    } else {
        out.u32(static_cast<std::uint32_t>(properties.size()));
        writeDescriptions(out, properties);
    }
    out.hresult(result);
    return Fault::None;
}

Fault ItemPropertiesInterface::getProperties(Server& server, Reader& in, Writer& out,
                                             dcom::orpc::CallContext& /*context*/) {
    return answer(in, out, [&](const PropertyRequest& request, std::vector<HResult>& errors) {
        std::vector<PropertyValue> properties;
        const HResult result = server.properties().values(request.itemId, request.ids, properties);
        if (failed(result)) {
            return result;
        }
        const std::size_t behind = 16 + properties.size() * sizeof(HResult);
        if (!writeVariantArray(out, ReplyRoom(out, server.budget()->memory.room()), properties, behind)) {
            return E_OUTOFMEMORY;
        }
        errors.reserve(properties.size());
        for (const PropertyValue& property : properties) {
            errors.push_back(property.error);
        }
        return result;
    });
}

Fault ItemPropertiesInterface::lookupItemIds(Server& server, Reader& in, Writer& out,
                                             dcom::orpc::CallContext& /*context*/) {
    return answer(in, out, [&](const PropertyRequest& request, std::vector<HResult>& errors) {
        const HResult result = server.properties().lookupItemIds(request.itemId, request.ids, errors);
        if (failed(result)) {
            return result;
        }
        writeArrayHead(out, errors.size());
        for (std::size_t i = 0; i < errors.size(); ++i) {
            out.nullPointer();  // no property is an item
        }
        return result;
    });
}

}  // namespace quelm::opcda::wire
