#include "opcda/wire/ServerBoundInterface.h"

#include "opcda/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

std::uint32_t ServerBoundInterface::invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                                           dcom::orpc::CallContext& context) {
    Server* const server = object_.server();
    return server != nullptr ? call(*server, opnum, in, out, context) : dcom::faultDisconnected;
}

}  // namespace quelm::opcda::wire
