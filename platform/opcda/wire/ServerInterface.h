#pragma once

// IOPCServer: a client's groups, the server's status and the texts of result codes.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcServer = "39C13A4D-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class OpcServer : std::uint16_t {
    AddGroup = dcom::orpc::firstOpnum,
    GetErrorString,
    GetGroupByName,
    GetStatus,
    RemoveGroup,
    CreateGroupEnumerator,
};

class ServerInterface final : public ServerBoundInterface<ServerInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcServer;
    static constexpr std::string_view interfaceName = "IOPCServer";
    using Opnum = OpcServer;

    using ServerBoundInterface::ServerBoundInterface;

 private:
    dcom::Fault addGroup(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context);
    dcom::Fault getErrorString(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                               dcom::orpc::CallContext& context);
    dcom::Fault groupByName(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                            dcom::orpc::CallContext& context);
    dcom::Fault getStatus(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                          dcom::orpc::CallContext& context);
    dcom::Fault removeGroup(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                            dcom::orpc::CallContext& context);
    dcom::Fault createGroupEnumerator(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                                      dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::AddGroup, "AddGroup", &ServerInterface::addGroup},
        Row{Opnum::GetErrorString, "GetErrorString", &ServerInterface::getErrorString},
        Row{Opnum::GetGroupByName, "GetGroupByName", &ServerInterface::groupByName},
        Row{Opnum::GetStatus, "GetStatus", &ServerInterface::getStatus},
        Row{Opnum::RemoveGroup, "RemoveGroup", &ServerInterface::removeGroup},
        Row{Opnum::CreateGroupEnumerator, "CreateGroupEnumerator", &ServerInterface::createGroupEnumerator},
    };
};

}  // namespace quelm::opcda::wire
