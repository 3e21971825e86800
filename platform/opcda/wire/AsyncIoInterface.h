#pragma once

// IOPCAsyncIO of a group, by which clients of data access 1.0 ask: each call names the connection that its answer goes
// to, and gives a number of the server's, which the answer carries.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcAsyncIo = "39C13A53-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class AsyncIo : std::uint16_t {
    Read = dcom::orpc::firstOpnum,
    Write,
    Refresh,
    Cancel,
};

class OpcGroupObject;

class AsyncIoInterface final : public dcom::orpc::Dispatched<AsyncIoInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcAsyncIo;
    static constexpr std::string_view interfaceName = "IOPCAsyncIO";
    using Opnum = AsyncIo;

    explicit AsyncIoInterface(OpcGroupObject& object);

 private:
    dcom::Fault read(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault write(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refresh(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault cancel(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault begin(bool isWrite, dcom::ndr::Reader& in, dcom::ndr::Writer& out);

    Group& group_;

 public:
    static constexpr std::array methods{
        Row{Opnum::Read, "Read", &AsyncIoInterface::read},
        Row{Opnum::Write, "Write", &AsyncIoInterface::write},
        Row{Opnum::Refresh, "Refresh", &AsyncIoInterface::refresh},
        Row{Opnum::Cancel, "Cancel", &AsyncIoInterface::cancel},
    };
};

}  // namespace quelm::opcda::wire
