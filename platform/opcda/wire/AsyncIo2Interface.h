#pragma once

// IOPCAsyncIO2 of a group. Clients ask for it before they use a group at all, so that it is there; the server doesn't
// call clients back, so that every method says that it is not implemented.

#include "dcom/orpc/ComObject.h"

namespace quelm::opcda::wire {

class AsyncIo2Interface final : public dcom::orpc::Interface {
 public:
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) override;
};

}  // namespace quelm::opcda::wire
