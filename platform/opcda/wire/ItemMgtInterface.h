#pragma once

// IOPCItemMgt of a group: adding, checking, removing and changing its items.

#include "dcom/orpc/MethodTable.h"
#include "opcda/CallBuffers.h"
#include "opcda/Group.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcItemMgt = "39C13A54-011E-11D0-9675-0020AFD8ADB3"_uuid;

enum class ItemMgt : std::uint16_t {
    AddItems = dcom::orpc::firstOpnum,
    ValidateItems,
    RemoveItems,
    SetActiveState,
    SetClientHandles,
    SetDatatypes,
    CreateEnumerator,
};

class OpcGroupObject;

class ItemMgtInterface final : public dcom::orpc::Dispatched<ItemMgtInterface> {
 public:
    static constexpr Uuid interfaceId = iidOpcItemMgt;
    static constexpr std::string_view interfaceName = "IOPCItemMgt";
    using Opnum = ItemMgt;

    explicit ItemMgtInterface(OpcGroupObject& object);

 private:
    dcom::Fault addItems(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault validateItems(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault removeItems(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setActiveState(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setClientHandles(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault setDatatypes(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault createEnumerator(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    dcom::Fault addOrValidate(bool add, dcom::ndr::Reader& in, dcom::ndr::Writer& out);
    // False, and nothing read, for more items than a call may have.
    bool readDefinitions(dcom::ndr::Reader& in, CallBuffers& buffers);
    // A call that names items by their handles and is answered with a result for each and nothing else.
    // readMore(buffers) reads what stands behind the handles; action(buffers) carries the call out.
    template <class ReadMore, class Action>
    dcom::Fault forHandles(dcom::ndr::Reader& in, dcom::ndr::Writer& out, ReadMore readMore, Action action);

    Group& group_;

 public:
    static constexpr std::array methods{
        Row{Opnum::AddItems, "AddItems", &ItemMgtInterface::addItems},
        Row{Opnum::ValidateItems, "ValidateItems", &ItemMgtInterface::validateItems},
        Row{Opnum::RemoveItems, "RemoveItems", &ItemMgtInterface::removeItems},
        Row{Opnum::SetActiveState, "SetActiveState", &ItemMgtInterface::setActiveState},
        Row{Opnum::SetClientHandles, "SetClientHandles", &ItemMgtInterface::setClientHandles},
        Row{Opnum::SetDatatypes, "SetDatatypes", &ItemMgtInterface::setDatatypes},
        Row{Opnum::CreateEnumerator, "CreateEnumerator", &ItemMgtInterface::createEnumerator},
    };
};

}  // namespace quelm::opcda::wire
