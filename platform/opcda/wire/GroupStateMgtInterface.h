#pragma once

// IOPCGroupStateMgt of a group: its update rate, activity, name, and copying it. IOPCGroupStateMgt2 adds empty
// callbacks by which its client sees that the server lives.

#include "dcom/orpc/MethodTable.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcGroupStateMgt = "39C13A50-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr Uuid iidOpcGroupStateMgt2 = "8E368666-D72E-4F78-87ED-647611C61C9F"_uuid;

enum class GroupStateMgt : std::uint16_t {
    GetState = dcom::orpc::firstOpnum,
    SetState,
    SetName,
    CloneGroup,
};

// Behind those of IOPCGroupStateMgt.
enum class GroupStateMgt2 : std::uint16_t {
    SetKeepAlive = dcom::orpc::opnumOf(GroupStateMgt::CloneGroup) + 1,
    GetKeepAlive,
};

class OpcGroupObject;

// What both interfaces have.
class GroupStateCalls : public dcom::orpc::Interface {
 public:
    explicit GroupStateCalls(OpcGroupObject& object) : object_(object) {}

 protected:
    dcom::Fault getState(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setState(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setName(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault cloneGroup(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    OpcGroupObject& object_;

 public:
    // Their rows, and behind them those of an interface's own.
    template <class Self, class... More>
    static constexpr auto methodsOf(const More&... more) {
        using Row = dcom::orpc::CallRow<Self>;
        return std::array{
            Row{GroupStateMgt::GetState, "GetState", &Self::getState},
            Row{GroupStateMgt::SetState, "SetState", &Self::setState},
            Row{GroupStateMgt::SetName, "SetName", &Self::setName},
            Row{GroupStateMgt::CloneGroup, "CloneGroup", &Self::cloneGroup},
            more...,
        };
    }
};

class GroupStateMgtInterface final : public dcom::orpc::Dispatched<GroupStateMgtInterface, GroupStateCalls> {
 public:
    static constexpr Uuid interfaceId = iidOpcGroupStateMgt;
    static constexpr std::string_view interfaceName = "IOPCGroupStateMgt";
    using Opnum = GroupStateMgt;
    using Dispatched::Dispatched;

    static constexpr auto methods = methodsOf<GroupStateMgtInterface>();
};

class GroupStateMgt2Interface final : public dcom::orpc::Dispatched<GroupStateMgt2Interface, GroupStateCalls> {
 public:
    static constexpr Uuid interfaceId = iidOpcGroupStateMgt2;
    static constexpr std::string_view interfaceName = "IOPCGroupStateMgt2";
    using Opnum = GroupStateMgt2;
    using Dispatched::Dispatched;

 private:
    dcom::Fault setKeepAlive(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault getKeepAlive(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

 public:
    static constexpr auto methods = methodsOf<GroupStateMgt2Interface>(
        Row{Opnum::SetKeepAlive, "SetKeepAlive", &GroupStateMgt2Interface::setKeepAlive},
        Row{Opnum::GetKeepAlive, "GetKeepAlive", &GroupStateMgt2Interface::getKeepAlive});
};

}  // namespace quelm::opcda::wire
