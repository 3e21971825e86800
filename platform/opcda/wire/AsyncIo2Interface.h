#pragma once

// IOPCAsyncIO2 of a group: calls that are answered through the client's own object once the plant has answered.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Group.h"

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

// The calls that IOPCAsyncIO3 has as well.
class AsyncIoCalls : public dcom::orpc::Interface {
 public:
    explicit AsyncIoCalls(OpcGroupObject& object);

 protected:
    dcom::Fault read(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault write(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refresh(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault cancel(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setEnable(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault getEnable(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    // What stands between the handles and the transaction.
    enum class Given : std::uint8_t { Nothing, Values, MaxAges, Vqts };
    dcom::Fault begin(Given given, dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    Group& group() { return group_; }

 private:
    Group& group_;

 public:
    // Their rows, and behind them those of an interface's own.
    template <class Self, class... More>
    static constexpr auto methodsOf(const More&... more) {
        using Row = dcom::orpc::CallRow<Self>;
        return std::array{
            Row{AsyncIo2::Read, "Read", &Self::read},
            Row{AsyncIo2::Write, "Write", &Self::write},
            Row{AsyncIo2::Refresh2, "Refresh2", &Self::refresh},
            Row{AsyncIo2::Cancel2, "Cancel2", &Self::cancel},
            Row{AsyncIo2::SetEnable, "SetEnable", &Self::setEnable},
            Row{AsyncIo2::GetEnable, "GetEnable", &Self::getEnable},
            more...,
        };
    }
};

class AsyncIo2Interface final : public dcom::orpc::Dispatched<AsyncIo2Interface, AsyncIoCalls> {
 public:
    static constexpr Uuid interfaceId = iidOpcAsyncIo2;
    static constexpr std::string_view interfaceName = "IOPCAsyncIO2";
    using Opnum = AsyncIo2;

    using Dispatched::Dispatched;

    static constexpr auto methods = methodsOf<AsyncIo2Interface>();
};

}  // namespace quelm::opcda::wire
