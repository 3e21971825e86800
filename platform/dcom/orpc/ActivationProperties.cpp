#include "dcom/orpc/ActivationProperties.h"

namespace quelm::dcom::orpc {

namespace {

constexpr std::uint32_t customReference = 4;
constexpr std::uint32_t customHeaderSize = 48;     // of an object reference of the custom kind
constexpr std::uint32_t serialisationHeader = 16;  // in front of every serialised structure
constexpr std::uint32_t differentMachine = 2;

constexpr Uuid propertiesOut = Uuid::parse("000001A3-0000-0000-C000-000000000046");
constexpr Uuid propertiesOutUnmarshaller = Uuid::parse("00000339-0000-0000-C000-000000000046");
constexpr Uuid instantiationInfo = Uuid::parse("000001AB-0000-0000-C000-000000000046");
constexpr Uuid propsOutInfo = Uuid::parse("00000339-0000-0000-C000-000000000046");
constexpr Uuid scmReplyInfo = Uuid::parse("000001B6-0000-0000-C000-000000000046");

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
    in.u32();  // total size: clients disagree on what it counts
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

bool readInstantiationInfo(std::span<const std::uint8_t> property, ActivationRequest& request) {
    ndr::Reader in(serialisedBody(property));
    request.classId = in.uuid();
    in.u32();  // class context
    in.u32();  // activation flags
    in.u32();  // surrogate
    const std::uint32_t count = in.u32();
    in.u32();  // instance flags
    const bool hasIids = in.pointer();
    in.u32();  // size of this structure: not filled in by every client
    in.u32();  // client's version, stated in front of the parameters already
    if (!in.good() || !hasIids || in.count(uuidSize) != count) {
        return false;
    }
    request.iids.resize(count);
    for (Uuid& iid : request.iids) {
        iid = in.uuid();
    }
    return in.good();
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

// Appends a structure with its serialisation header, padded as the header's length field demands.
// Gives the padded size.
std::uint32_t appendSerialised(ndr::Writer& out, std::vector<std::uint8_t> body) {
    body.resize((body.size() + 7) & ~std::size_t{7});
    out.u32(0x00081001);  // version 1, little endian, header length 8
    out.u32(0xCCCCCCCC);
    out.u32(static_cast<std::uint32_t>(body.size()));
    out.u32(0);
    out.bytes(body);
    return static_cast<std::uint32_t>(serialisationHeader + body.size());
}

std::vector<std::uint8_t> propsOutBody(const ActivationAnswer& answer, const Bindings& resolver) {
    std::vector<std::uint8_t> bytes;
    ndr::Writer out(bytes);
    const auto count = static_cast<std::uint32_t>(answer.interfaces.size());
    out.u32(count);
    out.pointer();
    out.pointer();
    out.pointer();
    out.u32(count);
    for (const ActivatedInterface& entry : answer.interfaces) {
        out.uuid(entry.iid);
    }
    out.u32(count);
    for (const ActivatedInterface& entry : answer.interfaces) {
        out.hresult(entry.result);
    }
    writeInterfacePointers(out, answer.interfaces, resolver);
    return bytes;
}

std::vector<std::uint8_t> scmReplyBody(const ActivationAnswer& answer, const Bindings& objects) {
    std::vector<std::uint8_t> bytes;
    ndr::Writer out(bytes);
    out.nullPointer();
    out.pointer();
    out.u64(answer.oxid);
    out.pointer();
    out.uuid(answer.remUnknownIpid);
    out.u32(answer.levelHint);
    writeComVersion(out);
    out.u32(objects.units());
    objects.write(out);
    return bytes;
}

std::vector<std::uint8_t> listBody(std::uint32_t headerSize, std::uint32_t propsOutSize, std::uint32_t replySize) {
    constexpr std::uint32_t properties = 2;
    std::vector<std::uint8_t> bytes;
    ndr::Writer out(bytes);
    out.u32(headerSize + propsOutSize + replySize);
    out.u32(headerSize);
    out.u32(0);
    out.u32(differentMachine);
    out.u32(properties);
    out.uuid({});
    out.pointer();
    out.pointer();
    out.nullPointer();
    out.u32(properties);
    out.uuid(propsOutInfo);  // clients take the two by their place, not by their id
    out.uuid(scmReplyInfo);
    out.u32(properties);
    out.u32(propsOutSize);
    out.u32(replySize);
    return bytes;
}

}  // namespace

bool readActivationProperties(std::span<const std::uint8_t> objectReference, ActivationRequest& request) {
    ndr::Reader in(customData(objectReference));
    in.u32();  // size, and a reserved word
    in.u32();
    if (!in.good()) {
        return false;
    }
    const auto blob = in.bytes(in.remaining());
    PropertyList list;
    if (!readPropertyList(blob, list)) {
        return false;
    }
    bool found = false;
    ndr::Reader properties(blob.subspan(list.headerSize));
    for (std::size_t i = 0; i < list.ids.size(); ++i) {
        const auto property = properties.bytes(list.sizes[i]);
        if (!properties.good()) {
            return false;
        }
        if (list.ids[i] == instantiationInfo) {
            if (!readInstantiationInfo(property, request)) {
                return false;
            }
            found = true;
        }
    }
    return found;
}

void writeInterfacePointers(ndr::Writer& out, const std::vector<ActivatedInterface>& interfaces,
                            const Bindings& resolver) {
    out.u32(static_cast<std::uint32_t>(interfaces.size()));
    for (const ActivatedInterface& entry : interfaces) {
        failed(entry.result) ? out.nullPointer() : out.pointer();
    }
    for (const ActivatedInterface& entry : interfaces) {
        if (!failed(entry.result)) {
            writeMarshalledReference(out, entry.iid, entry.reference, resolver);
        }
    }
}

void writeActivationProperties(ndr::Writer& out, const ActivationAnswer& answer, const Bindings& objects,
                               const Bindings& resolver) {
    std::vector<std::uint8_t> properties;
    ndr::Writer propertyWriter(properties);
    const std::uint32_t propsOutSize = appendSerialised(propertyWriter, propsOutBody(answer, resolver));
    const std::uint32_t replySize = appendSerialised(propertyWriter, scmReplyBody(answer, objects));
    // The list has the same size whatever it says.
    const auto listSize = static_cast<std::uint32_t>(serialisationHeader + listBody(0, 0, 0).size());
    std::vector<std::uint8_t> blob;
    ndr::Writer blobWriter(blob);
    appendSerialised(blobWriter, listBody(listSize, propsOutSize, replySize));
    blobWriter.bytes(properties);

    const auto blobSize = static_cast<std::uint32_t>(blob.size());
    constexpr std::uint32_t sizeAndReserved = 8;
    constexpr std::uint32_t countedTwice = 2 * sizeAndReserved;  // in the header's own size, as all sides have it
    const std::uint32_t total = customHeaderSize + sizeAndReserved + blobSize;
    out.u32(total);
    out.u32(total);
    out.u32(objectSignature);
    out.u32(customReference);
    out.uuid(propertiesOut);
    out.uuid(propertiesOutUnmarshaller);
    out.u32(0);
    out.u32(blobSize + countedTwice);
    out.u32(blobSize);
    out.u32(0);
    out.bytes(blob);
}

}  // namespace quelm::dcom::orpc
