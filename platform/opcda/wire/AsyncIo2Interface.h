#pragma once

// IOPCAsyncIO2 of a group. Clients ask for it before they use a group at all, so that it is there; the server doesn't
// call clients back, so that every method says that it is not implemented.

#include "dcom/orpc/MethodTable.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcAsyncIo2 = "39C13A71-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class AsyncIo2 : std::uint16_t {
    Read = dcom::orpc::firstOpnum,
    Write,
    Refresh2,
    Cancel2,
    SetEnable,
    GetEnable,
};

class OpcGroupObject;

class AsyncIo2Interface final : public dcom::orpc::Dispatched<AsyncIo2Interface> {
 public:
    static constexpr Uuid interfaceId = iidOpcAsyncIo2;
    static constexpr std::string_view interfaceName = "IOPCAsyncIO2";
    using Opnum = AsyncIo2;

    explicit AsyncIo2Interface(OpcGroupObject& /*object*/) {}

 private:
    dcom::Fault refuseBegin(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refuseNumber(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refuse(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::Read, "Read", &AsyncIo2Interface::refuseBegin},
        Row{Opnum::Write, "Write", &AsyncIo2Interface::refuseBegin},
        Row{Opnum::Refresh2, "Refresh2", &AsyncIo2Interface::refuseNumber},
        Row{Opnum::Cancel2, "Cancel2", &AsyncIo2Interface::refuse},
        Row{Opnum::SetEnable, "SetEnable", &AsyncIo2Interface::refuse},
        Row{Opnum::GetEnable, "GetEnable", &AsyncIo2Interface::refuseNumber},
    };
};

}  // namespace quelm::opcda::wire
