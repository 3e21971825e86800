#pragma once

// IOPCItemIO: reading items by their IDs, without a group. Writing is refused item by item.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcItemIo = "85C0B427-2893-4CBC-BD78-E5FC5146F08F"_uuid;

enum class ItemIo : std::uint16_t {
    Read = dcom::orpc::firstOpnum,
    WriteVqt,
};

class ItemIoInterface final : public ServerBoundInterface<ItemIoInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcItemIo;
    static constexpr std::string_view interfaceName = "IOPCItemIO";
    using Opnum = ItemIo;

    using ServerBoundInterface::ServerBoundInterface;

 private:
    dcom::Fault read(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault writeVqt(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context);

 public:
    static constexpr std::array methods{
        Row{Opnum::Read, "Read", &ItemIoInterface::read},
        Row{Opnum::WriteVqt, "WriteVQT", &ItemIoInterface::writeVqt},
    };
};

}  // namespace quelm::opcda::wire
