#pragma once

// IOPCItemMgt of a group: adding, checking, removing and changing its items.

#include "dcom/orpc/ComObject.h"
#include "opcda/CallBuffers.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

class ItemMgtInterface final : public dcom::orpc::Interface {
 public:
    explicit ItemMgtInterface(Group& group) : group_(group) {}
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) override;

 private:
    std::uint32_t addOrValidate(bool add, dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t removeItems(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setActiveState(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setClientHandles(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setDatatypes(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t createEnumerator(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    // False, and nothing read, for more items than a call may have.
    bool readDefinitions(dcom::ndr::Reader& in, CallBuffers& buffers);
    // A call that names items by their handles and is answered with a result for each and nothing else.
    // readMore(buffers) reads what stands behind the handles; action(buffers) carries the call out.
    template <class ReadMore, class Action>
    std::uint32_t forHandles(dcom::ndr::Reader& in, dcom::ndr::Writer& out, ReadMore readMore, Action action);

    Group& group_;
};

}  // namespace quelm::opcda::wire
