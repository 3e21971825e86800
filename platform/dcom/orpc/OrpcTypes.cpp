#include "dcom/orpc/OrpcTypes.h"

namespace quelm::dcom::orpc {

namespace {

constexpr std::uint16_t serviceNegotiate = 9;
constexpr std::uint16_t serviceNtlm = 10;
constexpr std::uint16_t serviceKerberos = 16;
constexpr std::uint16_t noAuthorisationService = 0xFFFF;
constexpr std::uint32_t standardHeaderSize = 24;

void skipExtension(ndr::Reader& in) {
    const std::uint32_t size = in.count(1);
    in.uuid();
    if (in.u32() > size) {
        in.fail();
    }
    in.bytes(size);
}

void skipExtensions(ndr::Reader& in) {
    in.u32();  // number in use; the array below is rounded up to an even number
    in.u32();
    if (!in.pointer()) {
        return;
    }
    const std::uint32_t slots = in.count(4);
    std::uint32_t present = 0;
    for (std::uint32_t i = 0; i < slots; ++i) {
        present += in.pointer() ? 1 : 0;
    }
    for (std::uint32_t i = 0; i < present && in.good(); ++i) {
        skipExtension(in);
    }
}

bool isLoopback(const std::string& address) {
    return address.rfind("127.", 0) == 0 || address == "::1";
}

void writeUnaligned64(ndr::Writer& out, std::uint64_t value) {
    out.u32(static_cast<std::uint32_t>(value));
    out.u32(static_cast<std::uint32_t>(value >> 32));
}

}  // namespace

OrpcThis readOrpcThis(ndr::Reader& in) {
    const std::uint16_t major = in.u16();
    const std::uint16_t minor = in.u16();
    const std::uint32_t flags = in.u32();
    in.u32();
    in.uuid();  // causality id, of use to single-threaded clients only
    if (in.pointer()) {
        skipExtensions(in);
    }
    if (!in.good()) {
        return {Fault::BadStubData, flags};
    }
    const bool speaksOurs = major == comMajorVersion && minor >= 1 && minor <= comMinorVersion;
    return {speaksOurs ? Fault::None : Fault::VersionMismatch, flags};
}

void skipOrpcThat(ndr::Reader& in) {
    in.u32();  // flags, as in the header of requests
    if (in.pointer()) {
        skipExtensions(in);
    }
}

// The one flag of a request that is answered stands alone, because a client exists that takes no combination.
void writeOrpcThat(ndr::Writer& out, const OrpcThis& request) {
    out.u32(request.flags == 1 ? 1 : 0);
    out.nullPointer();
}

void writeComVersion(ndr::Writer& out) {
    out.u16(comMajorVersion);
    out.u16(comMinorVersion);
}

std::span<const std::uint8_t> readInterfacePointer(ndr::Reader& in) {
    const std::uint32_t conformance = in.count(1);
    const std::uint32_t size = in.u32();
    if (size > conformance) {
        in.fail();
    }
    return in.bytes(size);
}

void writeObjectReference(ndr::Writer& out, const ObjectReference& reference) {
    // Flags stay 0 even for objects that need no pings: a client exists that cannot cope with any other value.
    out.u32(0);
    out.u32(reference.publicReferences);
    writeUnaligned64(out, reference.oxid);
    writeUnaligned64(out, reference.oid);
    out.bytes(reference.ipid.bytes);
}

Bindings::Bindings(const std::string& dialledAddress, const std::vector<std::string>& hostNames, std::uint16_t port,
                   const std::string& principal) {
    addEntry(dialledAddress, port);
    const bool local = isLoopback(dialledAddress);
    if (local) {
        addEntry("localhost", port);
    }
    for (const std::string& name : hostNames) {
        addEntry(name, port);
    }
    if (local || !hostNames.empty()) {
        addEntry(dialledAddress, port);
    }
    units_.push_back(0);
    securityOffset_ = static_cast<std::uint16_t>(units_.size());
    // The first one that a client can do is the one that it takes.
    if (!principal.empty()) {
        addService(serviceNegotiate, principal);
        addService(serviceKerberos, principal);
    }
    addService(serviceNtlm, {});
    units_.push_back(0);
}

void Bindings::addService(std::uint16_t service, const std::string& principal) {
    units_.insert(units_.end(), {service, noAuthorisationService});
    addText(principal);
    units_.push_back(0);
}

void Bindings::addText(std::string_view text) {
    for (const char c : text) {
        units_.push_back(static_cast<unsigned char>(c));
    }
}

void Bindings::addEntry(const std::string& address, std::uint16_t port) {
    units_.push_back(towerTcp);
    addText(address);
    if (port != 0) {
        addText('[' + std::to_string(port) + ']');
    }
    units_.push_back(0);
}

void Bindings::write(ndr::Writer& out) const {
    out.u16(static_cast<std::uint16_t>(units_.size()));
    out.u16(securityOffset_);
    for (const std::uint16_t unit : units_) {
        out.u16(unit);
    }
}

void Bindings::writePointed(ndr::Writer& out) const {
    out.pointer();
    out.u32(units());
    write(out);
}

void writeMarshalledReference(ndr::Writer& out, const Uuid& iid, const ObjectReference& reference,
                              const Bindings& resolver) {
    const auto size = static_cast<std::uint32_t>(standardHeaderSize + objectReferenceSize + resolver.byteSize());
    out.u32(size);
    out.u32(size);
    out.u32(objectSignature);
    out.u32(standardReference);
    out.uuid(iid);
    writeObjectReference(out, reference);
    resolver.write(out);
}

}  // namespace quelm::dcom::orpc
