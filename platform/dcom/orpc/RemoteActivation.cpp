#include "dcom/orpc/RemoteActivation.h"

#include <algorithm>

#include "dcom/orpc/ActivationBlob.h"
#include "dcom/orpc/ActivationProperties.h"

namespace quelm::dcom::orpc {

namespace {

constexpr std::uint32_t impersonate = 3;  // what the server may do in the client's name on its own machine

using Entries = std::vector<ActivatedObject::Entry>;

void writeProtocols(ndr::Writer& out) {
    out.u32(1);
    out.u16(towerTcp);
}

std::vector<std::uint8_t> instantiationBody(const Uuid& classId, std::span<const Uuid> iids) {
    constexpr std::uint32_t inAnyServer = 0x14;  // a program of the same machine or of another one
    std::vector<std::uint8_t> bytes;
    ndr::Writer out(bytes);
    out.uuid(classId);
    out.u32(inAnyServer);
    out.u32(0);
    out.u32(0);
    out.u32(static_cast<std::uint32_t>(iids.size()));
    out.u32(0);
    out.pointer();
    const std::size_t ownSize = out.position();
    out.u32(0);
    writeComVersion(out);
    out.u32(static_cast<std::uint32_t>(iids.size()));
    for (const Uuid& iid : iids) {
        out.uuid(iid);
    }
    out.patchU32(ownSize, serialisedSize(bytes.size()));
    return bytes;
}

std::vector<std::uint8_t> scmRequestBody() {
    std::vector<std::uint8_t> bytes;
    ndr::Writer out(bytes);
    out.nullPointer();
    out.pointer();
    out.u32(impersonate);
    out.u16(1);
    out.pointer();
    writeProtocols(out);
    return bytes;
}

// An array of results beside one of interface pointers: the pointers' contents stand behind their referents.
bool readEntries(ndr::Reader& in, Entries& entries, bool resultsFirst) {
    const auto readResults = [&] {
        if (in.count(sizeof(std::uint32_t)) != entries.size()) {
            in.fail();
        }
        for (auto& entry : entries) {
            entry.result = in.hresult();
        }
    };
    if (resultsFirst) {
        readResults();
    }
    std::vector<bool> present(in.count(sizeof(std::uint32_t)));
    if (!in.good() || present.size() != entries.size()) {
        return false;
    }
    std::generate(present.begin(), present.end(), [&] { return in.pointer(); });
    for (std::size_t i = 0; i < present.size() && in.good(); ++i) {
        if (present[i]) {
            entries[i].reference = parseRemoteReference(readInterfacePointer(in));
            if (!entries[i].reference) {
                return false;
            }
        }
    }
    if (!resultsFirst) {
        readResults();
    }
    return in.good();
}

bool readPropsOut(std::span<const std::uint8_t> body, Entries& entries) {
    ndr::Reader in(body);
    const std::uint32_t count = in.u32();
    const bool hasIids = in.pointer();
    const bool hasResults = in.pointer();
    const bool hasInterfaces = in.pointer();
    if (!in.good() || !hasIids || !hasResults || !hasInterfaces || in.count(uuidSize) != count ||
        count > maximumInterfaces) {
        return false;
    }
    in.bytes(std::size_t{count} * uuidSize);  // in the order asked for
    entries.resize(count);
    return in.good() && readEntries(in, entries, true);
}

bool readScmReply(std::span<const std::uint8_t> body, ActivatedObject& object) {
    ndr::Reader in(body);
    const bool hasReserved = in.pointer();
    if (!in.pointer()) {
        return false;
    }
    if (hasReserved) {
        in.u32();
    }
    object.oxid = in.u64();
    const bool hasBindings = in.pointer();
    object.process.remUnknownIpid = in.uuid();
    object.process.levelHint = in.u32();
    in.u16();  // the same major version for decades
    object.process.minorVersion = in.u16();
    if (hasBindings) {
        in.u32();  // the conformance, which the array's own count repeats
        object.process.bindings = readBindings(in);
    }
    return in.good();
}

// Where all is failure nothing else is looked at; where something is said to be there, it is.
std::optional<ActivatedObject> sound(ActivatedObject object) {
    if (failed(object.result)) {
        return ActivatedObject{object.result, 0, {}, {}};
    }
    for (auto& entry : object.interfaces) {
        if (failed(entry.result)) {
            entry.reference.reset();
        } else if (!entry.reference || entry.reference->object.ipid == Uuid{}) {
            return std::nullopt;
        }
    }
    return object.process.remUnknownIpid == Uuid{} ? std::nullopt : std::optional(std::move(object));
}

}  // namespace

// Of the properties that clients on Windows send, the four without which machines make nothing; the others tell of the
// session that a user is logged on to.
void writeCreateInstance(ndr::Writer& out, const ObjectCallHeader& header, const Uuid& classId,
                         std::span<const Uuid> iids) {
    constexpr std::size_t contextSize = 24;   // all of it zero: no context of the client's is taken along
    constexpr std::size_t locationSize = 16;  // nor is the choice of a machine
    writeOrpcThis(out, header);
    out.nullPointer();  // no aggregation
    out.pointer();
    writePropertyBlob(out, propertiesIn,
                      {{instantiationInfo, instantiationBody(classId, iids)},
                       {activationContextInfo, std::vector<std::uint8_t>(contextSize)},
                       {serverLocationInfo, std::vector<std::uint8_t>(locationSize)},
                       {scmRequestInfo, scmRequestBody()}});
}

void writeRemoteActivation(ndr::Writer& out, const ObjectCallHeader& header, const Uuid& classId,
                           std::span<const Uuid> iids) {
    writeOrpcThis(out, header);
    out.uuid(classId);
    out.nullPointer();  // of a file
    out.nullPointer();  // of a storage
    out.u32(impersonate);
    out.u32(0);  // an instance
    out.u32(static_cast<std::uint32_t>(iids.size()));
    out.pointer();
    out.u32(static_cast<std::uint32_t>(iids.size()));
    for (const Uuid& iid : iids) {
        out.uuid(iid);
    }
    out.u16(1);
    writeProtocols(out);
}

std::optional<ActivatedObject> parseCreateInstance(std::span<const std::uint8_t> stub) {
    ndr::Reader in(stub);
    skipOrpcThat(in);
    const bool hasProperties = in.pointer();
    const auto properties = hasProperties ? readInterfacePointer(in) : std::span<const std::uint8_t>{};
    ActivatedObject object;
    object.result = in.hresult();
    if (!in.good()) {
        return std::nullopt;
    }
    if (failed(object.result)) {
        return sound(std::move(object));
    }
    const auto list = readPropertyBlob(properties);
    if (!list) {
        return std::nullopt;
    }
    bool hasObjects = false;
    bool hasProcess = false;
    for (const PropertyView& property : *list) {
        if (property.id == propsOutInfo) {
            hasObjects = readPropsOut(property.body, object.interfaces);
        } else if (property.id == scmReplyInfo) {
            hasProcess = readScmReply(property.body, object);
        }
    }
    return hasObjects && hasProcess ? sound(std::move(object)) : std::nullopt;
}

std::optional<ActivatedObject> parseRemoteActivation(std::span<const std::uint8_t> stub) {
    ndr::Reader in(stub);
    skipOrpcThat(in);
    ActivatedObject object;
    object.oxid = in.u64();
    if (in.pointer()) {
        in.u32();  // the conformance, which the array's own count repeats
        object.process.bindings = readBindings(in);
    }
    object.process.remUnknownIpid = in.uuid();
    object.process.levelHint = in.u32();
    in.u16();
    object.process.minorVersion = in.u16();
    object.result = in.hresult();
    if (!in.good()) {
        return std::nullopt;
    }
    if (failed(object.result)) {  // what else stands there differs between machines
        return sound(std::move(object));
    }
    const std::uint32_t count = ndr::Reader(in).count(sizeof(std::uint32_t));
    if (count > maximumInterfaces) {
        return std::nullopt;
    }
    object.interfaces.resize(count);
    if (!readEntries(in, object.interfaces, false)) {
        return std::nullopt;
    }
    if (const std::uint32_t service = in.u32(); service != 0) {  // the service's own failure
        object.result = HResult{service};
    }
    return in.good() ? sound(std::move(object)) : std::nullopt;
}

}  // namespace quelm::dcom::orpc
