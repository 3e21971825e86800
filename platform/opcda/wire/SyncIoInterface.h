#pragma once

// IOPCSyncIO of a group: the call that clients make all day. A read from the cache goes straight from the handles in
// the request to the bytes of the reply.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcSyncIo = "39C13A52-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class SyncIo : std::uint16_t {
    Read = dcom::orpc::firstOpnum,
    Write,
};

class OpcGroupObject;

// The calls that IOPCSyncIO2 has as well.
class SyncIoCalls : public dcom::orpc::Interface {
 public:
    explicit SyncIoCalls(OpcGroupObject& object);

 protected:
    dcom::Fault read(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault write(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    // skipValues: passes over the values to write.
    dcom::Fault refuseWrite(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context,
                            void (*skipValues)(dcom::ndr::Reader&, std::uint32_t));
    Group& group() { return group_; }

 private:
    Group& group_;

 public:
    // Their rows, and behind them those of an interface's own.
    template <class Self, class... More>
    static constexpr auto methodsOf(const More&... more) {
        using Row = dcom::orpc::CallRow<Self>;
        return std::array{
            Row{SyncIo::Read, "Read", &Self::read},
            Row{SyncIo::Write, "Write", &Self::write},
            more...,
        };
    }
};

class SyncIoInterface final : public dcom::orpc::Dispatched<SyncIoInterface, SyncIoCalls> {
 public:
    static constexpr Uuid interfaceId = iidOpcSyncIo;
    static constexpr std::string_view interfaceName = "IOPCSyncIO";
    using Opnum = SyncIo;

    using Dispatched::Dispatched;

    static constexpr auto methods = methodsOf<SyncIoInterface>();
};

}  // namespace quelm::opcda::wire
