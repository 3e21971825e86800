#include "dcom/orpc/ActivationProperties.h"

#include "dcom/orpc/ActivationBlob.h"

namespace quelm::dcom::orpc {

namespace {

bool readInstantiationInfo(std::span<const std::uint8_t> property, ActivationRequest& request) {
    ndr::Reader in(property);
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

}  // namespace

bool readActivationProperties(std::span<const std::uint8_t> objectReference, ActivationRequest& request) {
    const auto properties = readPropertyBlob(objectReference);
    if (!properties) {
        return false;
    }
    bool found = false;
    for (const PropertyView& property : *properties) {
        if (property.id == instantiationInfo) {
            if (!readInstantiationInfo(property.body, request)) {
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
    // Clients take the two by their place, not by their id.
    writePropertyBlob(out, propertiesOut,
                      {{propsOutInfo, propsOutBody(answer, resolver)}, {scmReplyInfo, scmReplyBody(answer, objects)}});
}

}  // namespace quelm::dcom::orpc
