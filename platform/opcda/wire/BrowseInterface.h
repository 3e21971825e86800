#pragma once

// IOPCBrowseServerAddressSpace: a client's walk through the names of the items.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcBrowseServerAddressSpace = "39C13A4F-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class Browse : std::uint16_t {
    QueryOrganization = dcom::orpc::firstOpnum,
    ChangeBrowsePosition,
    BrowseOpcItemIds,
    GetItemId,
    BrowseAccessPaths,
};

class BrowseInterface final : public ServerBoundInterface<BrowseInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcBrowseServerAddressSpace;
    static constexpr std::string_view interfaceName = "IOPCBrowseServerAddressSpace";
    using Opnum = Browse;

    using ServerBoundInterface::ServerBoundInterface;

 private:
    dcom::Fault organization(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                             dcom::orpc::CallContext& context);
    dcom::Fault changePosition(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                               dcom::orpc::CallContext& context);
    dcom::Fault browseItemIds(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                              dcom::orpc::CallContext& context);
    dcom::Fault getItemId(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                          dcom::orpc::CallContext& context);
    dcom::Fault browseAccessPaths(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                                  dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::QueryOrganization, "QueryOrganization", &BrowseInterface::organization},
        Row{Opnum::ChangeBrowsePosition, "ChangeBrowsePosition", &BrowseInterface::changePosition},
        Row{Opnum::BrowseOpcItemIds, "BrowseOPCItemIDs", &BrowseInterface::browseItemIds},
        Row{Opnum::GetItemId, "GetItemID", &BrowseInterface::getItemId},
        Row{Opnum::BrowseAccessPaths, "BrowseAccessPaths", &BrowseInterface::browseAccessPaths},
    };
};

}  // namespace quelm::opcda::wire
