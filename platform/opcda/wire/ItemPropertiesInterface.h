#pragma once

// IOPCItemProperties: what is known of an item besides its reading.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcItemProperties = "39C13A72-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class ItemProperties : std::uint16_t {
    QueryAvailableProperties = dcom::orpc::firstOpnum,
    GetItemProperties,
    LookupItemIds,
};

class ItemPropertiesInterface final : public ServerBoundInterface<ItemPropertiesInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcItemProperties;
    static constexpr std::string_view interfaceName = "IOPCItemProperties";
    using Opnum = ItemProperties;

    using ServerBoundInterface::ServerBoundInterface;

 private:
    dcom::Fault queryAvailable(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                               dcom::orpc::CallContext& context);
    dcom::Fault getProperties(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                              dcom::orpc::CallContext& context);
    dcom::Fault lookupItemIds(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                              dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::QueryAvailableProperties, "QueryAvailableProperties", &ItemPropertiesInterface::queryAvailable},
        Row{Opnum::GetItemProperties, "GetItemProperties", &ItemPropertiesInterface::getProperties},
        Row{Opnum::LookupItemIds, "LookupItemIDs", &ItemPropertiesInterface::lookupItemIds},
    };
};

}  // namespace quelm::opcda::wire
