#pragma once

// IOPCItemProperties: what is known of an item besides its reading.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

class ItemPropertiesInterface final : public ServerBoundInterface {
 public:
    using ServerBoundInterface::ServerBoundInterface;

 private:
    std::uint32_t call(Server& server, std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                       dcom::orpc::CallContext& context) override;
};

}  // namespace quelm::opcda::wire
