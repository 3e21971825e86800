#pragma once

// IOPCBrowse: the names of the items level by level, in portions, with the items' properties at once.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcBrowse = "39227004-A18F-4B57-8B0A-5235670F4468"_uuid;

enum class Browse3 : std::uint16_t {
    GetProperties = dcom::orpc::firstOpnum,
    Browse,
};

class Browse3Interface final : public ServerBoundInterface<Browse3Interface> {
 public:
    static constexpr Uuid interfaceId = iidOpcBrowse;
    static constexpr std::string_view interfaceName = "IOPCBrowse";
    using Opnum = Browse3;

    using ServerBoundInterface::ServerBoundInterface;

 private:
    dcom::Fault getProperties(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                              dcom::orpc::CallContext& context);
    dcom::Fault browse(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::GetProperties, "GetProperties", &Browse3Interface::getProperties},
        Row{Opnum::Browse, "Browse", &Browse3Interface::browse},
    };
};

}  // namespace quelm::opcda::wire
