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
    PropertyRequest request;
    request.itemId = in.wideString();
    const std::uint32_t count = in.u32();
    request.tooMany = count > mostPropertyIds;
    if (!request.tooMany) {
        readU32Array(in, count, request.ids);
    }
    return request;
}

// No array and no results, after a failure of the whole call.
Fault refuse(Writer& out, HResult result) {
    out.nullPointer();
    writeErrors(out, result, {});
    return Fault::None;
}

Fault writeValues(Writer& out, std::size_t memoryLeft, HResult result, const std::vector<PropertyValue>& properties) {
    const std::size_t behind = 16 + properties.size() * sizeof(HResult);
    if (!failed(result) && !writeVariantArray(out, ReplyRoom(out, memoryLeft), properties, behind)) {
        result = E_OUTOFMEMORY;
    }
    if (failed(result)) {
        return refuse(out, result);
    }
    std::vector<HResult> errors;
    errors.reserve(properties.size());
    for (const PropertyValue& property : properties) {
        errors.push_back(property.error);
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

// The value is data of the item; the other properties tell about it.
Fault ItemPropertiesInterface::getProperties(Server& server, Reader& in, Writer& out,
                                             dcom::orpc::CallContext& context) {
    const PropertyRequest request = readRequest(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (request.tooMany) {
        return refuse(out, E_OUTOFMEMORY);
    }
    server.properties().values(request.itemId, request.ids,
                               [reply = context.defer(out), budget = server.budget(), update = server.lastUpdate()](
                                   HResult result, const std::vector<PropertyValue>& properties) {
                                   reply->complete([&](Writer& late) {
                                       if (!failed(result)) {
                                           update->note();
                                       }
                                       return writeValues(late, budget->memory.room(), result, properties);
                                   });
                               });
    return Fault::Deferred;
}

Fault ItemPropertiesInterface::lookupItemIds(Server& server, Reader& in, Writer& out,
                                             dcom::orpc::CallContext& /*context*/) {
    const PropertyRequest request = readRequest(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::vector<HResult> errors;
    const HResult result =
        request.tooMany ? E_OUTOFMEMORY : server.properties().lookupItemIds(request.itemId, request.ids, errors);
    if (failed(result)) {
        return refuse(out, result);
    }
    writeArrayHead(out, errors.size());
    for (std::size_t i = 0; i < errors.size(); ++i) {
        out.nullPointer();  // no property is an item
    }
    writeErrors(out, result, errors);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
