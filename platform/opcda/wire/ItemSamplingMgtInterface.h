#pragma once

// IOPCItemSamplingMgt of a group. Items are sampled by the passes, so that any rate is revised to theirs; what changes
// between two passes nobody knows, and nothing is buffered.

#include "dcom/orpc/MethodTable.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcItemSamplingMgt = "3E22D313-F08B-41A5-86C8-95E95CB49FFC"_uuid;

enum class ItemSamplingMgt : std::uint16_t {
    SetItemSamplingRate = dcom::orpc::firstOpnum,
    GetItemSamplingRate,
    ClearItemSamplingRate,
    SetItemBufferEnable,
    GetItemBufferEnable,
};

class OpcGroupObject;

class ItemSamplingMgtInterface final : public dcom::orpc::Dispatched<ItemSamplingMgtInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcItemSamplingMgt;
    static constexpr std::string_view interfaceName = "IOPCItemSamplingMgt";
    using Opnum = ItemSamplingMgt;

    explicit ItemSamplingMgtInterface(OpcGroupObject& object);

 private:
    dcom::Fault setRate(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault getRate(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault clearRate(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setBuffer(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault getBuffer(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    // What goes with the handles, and what is given for each beside its error.
    enum class Wanted : std::uint8_t { Nothing, Numbers };
    enum class Given : std::uint8_t { Errors, Numbers };
    template <class Ask>
    dcom::Fault answer(Wanted wanted, Given given, dcom::ndr::Reader& in, dcom::ndr::Writer& out, Ask&& ask);

    Group& group_;

 public:
    static constexpr std::array methods{
        Row{Opnum::SetItemSamplingRate, "SetItemSamplingRate", &ItemSamplingMgtInterface::setRate},
        Row{Opnum::GetItemSamplingRate, "GetItemSamplingRate", &ItemSamplingMgtInterface::getRate},
        Row{Opnum::ClearItemSamplingRate, "ClearItemSamplingRate", &ItemSamplingMgtInterface::clearRate},
        Row{Opnum::SetItemBufferEnable, "SetItemBufferEnable", &ItemSamplingMgtInterface::setBuffer},
        Row{Opnum::GetItemBufferEnable, "GetItemBufferEnable", &ItemSamplingMgtInterface::getBuffer},
    };
};

}  // namespace quelm::opcda::wire
