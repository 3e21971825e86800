#pragma once

// IOPCItemIO: reading items by their IDs, without a group. Writing is refused item by item.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

class ItemIoInterface final : public ServerBoundInterface {
 public:
    using ServerBoundInterface::ServerBoundInterface;

 private:
    std::uint32_t call(Server& server, std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                       dcom::orpc::CallContext& context) override;
    std::uint32_t read(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    std::uint32_t writeVqt(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                           dcom::orpc::CallContext& context);
};

}  // namespace quelm::opcda::wire
