#pragma once

// IOPCGroupStateMgt of a group: its update rate, activity, name, and copying it.

#include "dcom/orpc/MethodTable.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcGroupStateMgt = "39C13A50-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class GroupStateMgt : std::uint16_t {
    GetState = dcom::orpc::firstOpnum,
    SetState,
    SetName,
    CloneGroup,
};

class OpcGroupObject;

class GroupStateMgtInterface final : public dcom::orpc::Dispatched<GroupStateMgtInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcGroupStateMgt;
    static constexpr std::string_view interfaceName = "IOPCGroupStateMgt";
    using Opnum = GroupStateMgt;

    explicit GroupStateMgtInterface(OpcGroupObject& object) : object_(object) {}

 private:
    dcom::Fault getState(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setState(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setName(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault cloneGroup(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    OpcGroupObject& object_;

 public:
    static constexpr std::array methods{
        Row{Opnum::GetState, "GetState", &GroupStateMgtInterface::getState},
        Row{Opnum::SetState, "SetState", &GroupStateMgtInterface::setState},
        Row{Opnum::SetName, "SetName", &GroupStateMgtInterface::setName},
        Row{Opnum::CloneGroup, "CloneGroup", &GroupStateMgtInterface::cloneGroup},
    };
};

}  // namespace quelm::opcda::wire
