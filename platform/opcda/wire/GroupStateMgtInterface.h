#pragma once

// IOPCGroupStateMgt of a group: its update rate, activity, name, and copying it.

#include "dcom/orpc/ComObject.h"

namespace quelm::opcda::wire {

class OpcGroupObject;

class GroupStateMgtInterface final : public dcom::orpc::Interface {
 public:
    explicit GroupStateMgtInterface(OpcGroupObject& object) : object_(object) {}
    std::uint32_t invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                         dcom::orpc::CallContext& context) override;

 private:
    std::uint32_t getState(dcom::ndr::Writer& out);
    std::uint32_t setState(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t setName(dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    std::uint32_t cloneGroup(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    OpcGroupObject& object_;
};

}  // namespace quelm::opcda::wire
