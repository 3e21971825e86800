#pragma once

// IOPCSyncIO2 of a group: reading with a maximum age for each item, so that the plant is asked only for what is too
// old. Writing is refused item by item.

#include "opcda/wire/SyncIoInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcSyncIo2 = "730F5F0F-55B1-4C81-9E18-FF8A0904E1FA"_uuid;

// Behind those of IOPCSyncIO.
enum class SyncIo2 : std::uint16_t {
    ReadMaxAge = dcom::orpc::opnumOf(SyncIo::Write) + 1,
    WriteVqt,
};

class SyncIo2Interface final : public dcom::orpc::Dispatched<SyncIo2Interface, SyncIoCalls> {
 public:
    static constexpr Uuid interfaceId = iidOpcSyncIo2;
    static constexpr std::string_view interfaceName = "IOPCSyncIO2";
    using Opnum = SyncIo2;

    using Dispatched::Dispatched;

 private:
    dcom::Fault readMaxAge(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault writeVqt(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

 public:
    static constexpr auto methods =
        methodsOf<SyncIo2Interface>(Row{Opnum::ReadMaxAge, "ReadMaxAge", &SyncIo2Interface::readMaxAge},
                                    Row{Opnum::WriteVqt, "WriteVQT", &SyncIo2Interface::writeVqt});
};

}  // namespace quelm::opcda::wire
