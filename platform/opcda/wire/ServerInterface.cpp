#include "opcda/wire/ServerInterface.h"

#include "dcom/orpc/OrpcTypes.h"
#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/OpcServerObject.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

namespace {

void writeFileTime(Writer& out, std::int64_t fileTime) {
    out.u32(static_cast<std::uint32_t>(fileTime));
    out.u32(static_cast<std::uint32_t>(fileTime >> 32));
}

}  // namespace

Fault ServerInterface::getErrorString(Server& server, Reader& in, Writer& out, CallContext& /*context*/) {
    const HResult code = in.hresult();
    const std::uint32_t locale = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::string_view text;
    const HResult result = server.errorString(code, locale, text);
    writeStringOrNull(out, result, text);
    out.hresult(result);
    return Fault::None;
}

Fault ServerInterface::getStatus(Server& server, Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    const ServerStatus status = server.status();
    out.pointer();
    writeFileTime(out, status.startTime);
    writeFileTime(out, status.currentTime);
    writeFileTime(out, status.lastUpdateTime);
    out.u16(static_cast<std::uint16_t>(status.state));
    out.u32(status.groupCount);
    out.u32(status.bandWidth);
    out.u16(status.majorVersion);
    out.u16(status.minorVersion);
    out.u16(status.buildNumber);
    out.u16(0);  // reserved
    writeString(out, status.vendor);
    out.hresult(S_OK);
    return Fault::None;
}

Fault ServerInterface::addGroup(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::string name = in.wideString();
    GroupRequest request;
    request.name = name;
    request.active = in.u32() != 0;
    request.updateRate = in.u32();
    request.clientHandle = in.u32();
    if (in.pointer()) {
        request.timeBias = in.i32();
    }
    if (in.pointer()) {
        request.percentDeadband = in.f32();
    }
    request.localeId = in.u32();
    const Uuid iid = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::shared_ptr<Group> group;
    const HResult result = OpcGroupObject::hasInterface(iid) ? server.addGroup(request, group) : E_NOINTERFACE;
    const std::size_t numbers = out.position();
    out.u32(failed(result) ? 0 : group->serverHandle());
    out.u32(failed(result) ? 0 : group->state().updateRate);
    const HResult written = object().writeNewGroup(out, context, group, iid, result);
    if (failed(written)) {
        out.patchU32(numbers, 0);
        out.patchU32(numbers + 4, 0);
    }
    out.hresult(written);
    return Fault::None;
}

Fault ServerInterface::groupByName(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::string name = in.wideString();
    const Uuid iid = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::shared_ptr<Group> group;
    const HResult result = OpcGroupObject::hasInterface(iid) ? server.groupByName(name, group) : E_NOINTERFACE;
    out.hresult(object().writeGroup(out, context, group, iid, result));
    return Fault::None;
}

Fault ServerInterface::removeGroup(Server& /*server*/, Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t handle = in.u32();
    const bool force = in.u32() != 0;
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(object().removeGroup(handle, force));
    return Fault::None;
}

Fault ServerInterface::createGroupEnumerator(Server& server, Reader& in, Writer& out, CallContext& context) {
    const std::uint16_t scope = in.u16();
    const Uuid iid = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (iid == iidEnumString) {
        StringEnumerator names;
        const HResult result = server.groupNames(scope, names);
        out.hresult(writeEnumerator<EnumString<std::string>>(out, context, iid, memoryOf(server.budget()),
                                                             std::move(names), result));
        return Fault::None;
    }
    if (iid != iidEnumUnknown) {
        return writeNoInterface(out, E_NOINTERFACE);
    }
    std::vector<std::shared_ptr<Group>> groups;
    const HResult result = server.groups(scope, groups);
    Hold memory = memoryOf(server.budget());
    if (!memory.resize(groups.size() * sizeof groups[0])) {
        return writeNoInterface(out, E_OUTOFMEMORY);
    }
    std::vector<std::shared_ptr<dcom::orpc::ComObject>> objects;
    objects.reserve(groups.size());
    for (const auto& group : groups) {
        objects.push_back(object().groupObject(group));
    }
    Hold others = memory.another();
    out.hresult(writeEnumerator<EnumUnknown>(out, context, iid, std::move(others),
                                             Enumerator(std::move(objects), std::move(memory)), result));
    return Fault::None;
}

}  // namespace quelm::opcda::wire
