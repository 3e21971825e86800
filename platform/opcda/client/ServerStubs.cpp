#include "opcda/client/ServerStubs.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

Reply<NewGroup> IOPCServer::AddGroup(const GroupRequest& request, const Uuid& groupIid) const {
    Answer answer = ask(wire::OpcServer::AddGroup, "IOPCServer::AddGroup", [&](Writer& out) {
        out.wideString(request.name);
        out.u32(request.active ? 1 : 0);
        out.u32(request.updateRate);
        out.u32(request.clientHandle);
        writeOptional(out, request.timeBias, [&](std::int32_t bias) { out.i32(bias); });
        writeOptional(out, request.percentDeadband, [&](float percent) { out.f32(percent); });
        out.u32(request.localeId);
        out.uuid(groupIid);
    });
    Reply<NewGroup> reply;
    reply.out.serverHandle = answer.in().u32();
    reply.out.revisedUpdateRate = answer.in().u32();
    const auto reference = answer.pointer();
    reply.result = answer.done();
    reply.out.group = answer.object(reference);
    return reply;
}

Reply<Maybe<std::string>> IOPCServer::GetErrorString(HResult error, std::uint32_t localeId) const {
    return text(wire::OpcServer::GetErrorString, "IOPCServer::GetErrorString", [&](Writer& out) {
        out.hresult(error);
        out.u32(localeId);
    });
}

Reply<Maybe<Interface>> IOPCServer::GetGroupByName(std::string_view name, const Uuid& groupIid) const {
    return fetch(wire::OpcServer::GetGroupByName, "IOPCServer::GetGroupByName", [&](Writer& out) {
        out.wideString(name);
        out.uuid(groupIid);
    });
}

Reply<Maybe<ServerStatus>> IOPCServer::GetStatus() const {
    Answer answer = ask(wire::OpcServer::GetStatus, "IOPCServer::GetStatus");
    Reply<Maybe<ServerStatus>> reply;
    Reader& in = answer.in();
    if (in.pointer()) {
        ServerStatus& status = reply.out.emplace();
        status.startTime = readFileTime(in);
        status.currentTime = readFileTime(in);
        status.lastUpdateTime = readFileTime(in);
        status.state = in.u16();
        status.groupCount = in.u32();
        status.bandWidth = in.u32();
        status.majorVersion = in.u16();
        status.minorVersion = in.u16();
        status.buildNumber = in.u16();
        in.u16();  // reserved
        status.vendorInfo = readText(in);
    }
    reply.result = answer.done();
    return reply;
}

HResult IOPCServer::RemoveGroup(std::uint32_t serverHandle, bool force) const {
    return tell(wire::OpcServer::RemoveGroup, "IOPCServer::RemoveGroup", [&](Writer& out) {
        out.u32(serverHandle);
        out.u32(force ? 1 : 0);
    });
}

Reply<Maybe<Interface>> IOPCServer::CreateGroupEnumerator(GroupScope scope, const Uuid& enumeratorIid) const {
    return fetch(wire::OpcServer::CreateGroupEnumerator, "IOPCServer::CreateGroupEnumerator", [&](Writer& out) {
        out.u16(static_cast<std::uint16_t>(scope));
        out.uuid(enumeratorIid);
    });
}

HResult IOPCCommon::SetLocaleID(std::uint32_t localeId) const {
    return tell(wire::Common::SetLocaleId, "IOPCCommon::SetLocaleID", [&](Writer& out) { out.u32(localeId); });
}

Reply<std::uint32_t> IOPCCommon::GetLocaleID() const {
    return number(wire::Common::GetLocaleId, "IOPCCommon::GetLocaleID");
}

Reply<Maybe<std::vector<std::uint32_t>>> IOPCCommon::QueryAvailableLocaleIDs() const {
    Answer answer = ask(wire::Common::QueryAvailableLocaleIds, "IOPCCommon::QueryAvailableLocaleIDs");
    Reply<Maybe<std::vector<std::uint32_t>>> reply;
    const std::uint32_t count = answer.in().u32();
    reply.out = readNumbers(answer.in(), count);
    reply.result = answer.done();
    return reply;
}

Reply<Maybe<std::string>> IOPCCommon::GetErrorString(HResult error) const {
    return text(wire::Common::GetErrorString, "IOPCCommon::GetErrorString", [&](Writer& out) { out.hresult(error); });
}

HResult IOPCCommon::SetClientName(std::string_view name) const {
    return tell(wire::Common::SetClientName, "IOPCCommon::SetClientName", [&](Writer& out) { out.wideString(name); });
}

template <bool younger>
Reply<Maybe<Interface>> ServerListStub<younger>::EnumClassesOfCategories(std::span<const Uuid> implemented,
                                                                         std::span<const Uuid> required) const {
    return fetch(wire::ServerList::EnumClassesOfCategories, "IOPCServerList::EnumClassesOfCategories",
                 [&](Writer& out) {
                     for (const auto& categories : {implemented, required}) {
                         out.u32(static_cast<std::uint32_t>(categories.size()));
                         writeUuids(out, categories);
                     }
                 });
}

template <bool younger>
Reply<ClassDetails> ServerListStub<younger>::GetClassDetails(const Uuid& classId) const {
    Answer answer = ask(wire::ServerList::GetClassDetails, "IOPCServerList::GetClassDetails",
                        [&](Writer& out) { out.uuid(classId); });
    Reply<ClassDetails> reply;
    reply.out.progId = readText(answer.in());
    reply.out.userType = readText(answer.in());
    if (younger) {
        reply.out.versionIndependentProgId = readText(answer.in());
    }
    reply.result = answer.done();
    return reply;
}

template <bool younger>
Reply<Uuid> ServerListStub<younger>::CLSIDFromProgID(std::string_view progId) const {
    Answer answer = ask(wire::ServerList::ClsidFromProgId, "IOPCServerList::CLSIDFromProgID",
                        [&](Writer& out) { out.wideString(progId); });
    Reply<Uuid> reply;
    reply.out = answer.in().uuid();
    reply.result = answer.done();
    return reply;
}

template class ServerListStub<false>;
template class ServerListStub<true>;

}  // namespace quelm::opcda::client
