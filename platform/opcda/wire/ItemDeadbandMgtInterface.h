#pragma once

// IOPCItemDeadbandMgt of a group. A deadband is a part of an item's engineering range, and no item has one, so that
// each is answered that it supports none; bad handles are told apart.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcItemDeadbandMgt = "5946DA93-8B39-4EC8-AB3D-AA73DF5BC86F"_uuid;

enum class ItemDeadbandMgt : std::uint16_t {
    SetItemDeadband = dcom::orpc::firstOpnum,
    GetItemDeadband,
    ClearItemDeadband,
};

class OpcGroupObject;

class ItemDeadbandMgtInterface final : public dcom::orpc::Dispatched<ItemDeadbandMgtInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcItemDeadbandMgt;
    static constexpr std::string_view interfaceName = "IOPCItemDeadbandMgt";
    using Opnum = ItemDeadbandMgt;

    explicit ItemDeadbandMgtInterface(OpcGroupObject& object);

 private:
    dcom::Fault set(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault get(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault clear(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    enum class Deadbands : std::uint8_t { Neither, Given, AskedFor };
    dcom::Fault refuse(Deadbands deadbands, dcom::ndr::Reader& in, dcom::ndr::Writer& out);

    Group& group_;

 public:
    static constexpr std::array methods{
        Row{Opnum::SetItemDeadband, "SetItemDeadband", &ItemDeadbandMgtInterface::set},
        Row{Opnum::GetItemDeadband, "GetItemDeadband", &ItemDeadbandMgtInterface::get},
        Row{Opnum::ClearItemDeadband, "ClearItemDeadband", &ItemDeadbandMgtInterface::clear},
    };
};

}  // namespace quelm::opcda::wire
