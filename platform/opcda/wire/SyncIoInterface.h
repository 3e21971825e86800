#pragma once

// IOPCSyncIO of a group: the call that clients make all day. A read from the cache goes straight from the handles in
// the request to the bytes of the reply.

#include "dcom/orpc/ComObject.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

class SyncIoInterface final : public dcom::orpc::Interface {
 public:
    explicit SyncIoInterface(Group& group) : group_(group) {}
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) override;

 private:
    std::uint32_t read(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    std::uint32_t write(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    Group& group_;
};

}  // namespace quelm::opcda::wire
