#include "dcom/orpc/ActivationBlob.h"

#include "dcom/ndr/Reader.h"
#include "dcom/orpc/OrpcTypes.h"

namespace quelm::dcom::orpc {

namespace {

constexpr std::uint32_t customReference = 4;
constexpr std::uint32_t customHeaderSize = 48;  // of an object reference of the custom kind
constexpr std::uint32_t differentMachine = 2;

// The structure behind a serialisation header. Empty when the header is not the little-endian form that every
// known client sends.
std::span<const std::uint8_t> serialisedBody(std::span<const std::uint8_t> data) {
    constexpr std::uint8_t version = 1;
    constexpr std::uint8_t littleEndian = 0x10;
    if (data.size() < serialisationHeader || data[0] != version || data[1] != littleEndian) {
        return {};
    }
    return data.subspan(serialisationHeader);
}

struct PropertyList {
    std::uint32_t headerSize = 0;
    std::vector<Uuid> ids;
    std::vector<std::uint32_t> sizes;
};

bool readPropertyList(std::span<const std::uint8_t> blob, PropertyList& list) {
    ndr::Reader in(serialisedBody(blob));
    in.u32();  // total size: both ends disagree on what it counts
    list.headerSize = in.u32();
    in.u32();
    in.u32();
    const std::uint32_t count = in.u32();
    in.uuid();
    const bool hasIds = in.pointer();
    const bool hasSizes = in.pointer();
    in.pointer();
    if (!in.good() || !hasIds || !hasSizes || in.count(uuidSize) != count) {
        return false;
    }
    list.ids.resize(count);
    for (Uuid& id : list.ids) {
        id = in.uuid();
    }
    if (in.count(sizeof(std::uint32_t)) != count) {
        return false;
    }
    list.sizes.resize(count);
    for (std::uint32_t& size : list.sizes) {
        size = in.u32();
    }
    return in.good() && list.headerSize >= serialisationHeader + in.position() && list.headerSize <= blob.size();
}

// The part behind the header of a custom object reference.
std::span<const std::uint8_t> customData(std::span<const std::uint8_t> objectReference) {
    ndr::Reader in(objectReference);
    const bool isCustom = in.u32() == objectSignature && in.u32() == customReference;
    in.uuid();
    in.uuid();
    in.u32();  // no extensions are defined
    in.u32();  // size, counted differently by different clients
    if (!in.good() || !isCustom) {
        return {};
    }
    return objectReference.subspan(customHeaderSize);
}

void writeSerialised(ndr::Writer& out, std::span<const std::uint8_t> body) {
    const std::uint32_t padded = serialisedSize(body.size()) - serialisationHeader;
    out.u32(0x00081001);  // version 1, little endian, header length 8
    out.u32(0xCCCCCCCC);
    out.u32(padded);
    out.u32(0);
    out.bytes(body);
    out.extend(padded - body.size());
}

// The same size whatever the header's size is.
std::vector<std::uint8_t> listBody(const std::vector<Property>& properties, std::uint32_t headerSize) {
    std::uint32_t total = headerSize;
    for (const Property& property : properties) {
        total += serialisedSize(property.body.size());
    }
    std::vector<std::uint8_t> bytes;
    ndr::Writer out(bytes);
    const auto count = static_cast<std::uint32_t>(properties.size());
    out.u32(total);
    out.u32(headerSize);
    out.u32(0);
    out.u32(differentMachine);
    out.u32(count);
    out.uuid({});
    out.pointer();
    out.pointer();
    out.nullPointer();
    out.u32(count);
    for (const Property& property : properties) {
        out.uuid(property.id);
    }
    out.u32(count);
    for (const Property& property : properties) {
        out.u32(serialisedSize(property.body.size()));
    }
    return bytes;
}

}  // namespace

std::optional<std::vector<PropertyView>> readPropertyBlob(std::span<const std::uint8_t> objectReference) {
    ndr::Reader in(customData(objectReference));
    in.u32();  // size, and a reserved word
    in.u32();
    if (!in.good()) {
        return std::nullopt;
    }
    const auto blob = in.bytes(in.remaining());
    PropertyList list;
    if (!readPropertyList(blob, list)) {
        return std::nullopt;
    }
    std::vector<PropertyView> properties;
    properties.reserve(list.ids.size());
    ndr::Reader bodies(blob.subspan(list.headerSize));
    for (std::size_t i = 0; i < list.ids.size(); ++i) {
        properties.push_back({list.ids[i], serialisedBody(bodies.bytes(list.sizes[i]))});
    }
    return bodies.good() ? std::optional(std::move(properties)) : std::nullopt;
}

void writePropertyBlob(ndr::Writer& out, const BlobKind& kind, const std::vector<Property>& properties) {
    const std::uint32_t headerSize = serialisedSize(listBody(properties, 0).size());
    std::vector<std::uint8_t> blob;
    ndr::Writer blobWriter(blob);
    writeSerialised(blobWriter, listBody(properties, headerSize));
    for (const Property& property : properties) {
        writeSerialised(blobWriter, property.body);
    }
    const auto blobSize = static_cast<std::uint32_t>(blob.size());
    constexpr std::uint32_t sizeAndReserved = 8;
    constexpr std::uint32_t countedTwice = 2 * sizeAndReserved;  // in the header's own size, as all sides have it
    const std::uint32_t total = customHeaderSize + sizeAndReserved + blobSize;
    out.u32(total);
    out.u32(total);
    out.u32(objectSignature);
    out.u32(customReference);
    out.uuid(kind.iid);
    out.uuid(kind.unmarshaller);
    out.u32(0);
    out.u32(blobSize + countedTwice);
    out.u32(blobSize);
    out.u32(0);
    out.bytes(blob);
}

}  // namespace quelm::dcom::orpc
