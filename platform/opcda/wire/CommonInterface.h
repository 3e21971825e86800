#pragma once

// IOPCCommon: a client's locale and its name.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcCommon = "F31DFDE2-07B6-11D2-B2D8-0060083BA1FB"_uuid;

enum class Common : std::uint16_t {
    SetLocaleId = dcom::orpc::firstOpnum,
    GetLocaleId,
    QueryAvailableLocaleIds,
    GetErrorString,
    SetClientName,
};

class CommonInterface final : public ServerBoundInterface<CommonInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcCommon;
    static constexpr std::string_view interfaceName = "IOPCCommon";
    using Opnum = Common;

    using ServerBoundInterface::ServerBoundInterface;

 private:
    dcom::Fault setLocale(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                          dcom::orpc::CallContext& context);
    dcom::Fault getLocale(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                          dcom::orpc::CallContext& context);
    dcom::Fault availableLocales(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                                 dcom::orpc::CallContext& context);
    dcom::Fault getErrorString(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                               dcom::orpc::CallContext& context);
    dcom::Fault setClientName(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                              dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::SetLocaleId, "SetLocaleID", &CommonInterface::setLocale},
        Row{Opnum::GetLocaleId, "GetLocaleID", &CommonInterface::getLocale},
        Row{Opnum::QueryAvailableLocaleIds, "QueryAvailableLocaleIDs", &CommonInterface::availableLocales},
        Row{Opnum::GetErrorString, "GetErrorString", &CommonInterface::getErrorString},
        Row{Opnum::SetClientName, "SetClientName", &CommonInterface::setClientName},
    };
};

}  // namespace quelm::opcda::wire
