#pragma once

// IOPCServer: a client's groups, the server's status and the texts of result codes.

#include "opcda/wire/ServerBoundInterface.h"

namespace quelm::opcda::wire {

class ServerInterface final : public ServerBoundInterface {
 public:
    using ServerBoundInterface::ServerBoundInterface;

 private:
    std::uint32_t call(Server& server, std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                       dcom::orpc::CallContext& context) override;
    std::uint32_t addGroup(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                           dcom::orpc::CallContext& context);
    std::uint32_t groupByName(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                              dcom::orpc::CallContext& context);
    std::uint32_t removeGroup(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t createGroupEnumerator(Server& server, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                                        dcom::orpc::CallContext& context);
};

}  // namespace quelm::opcda::wire
