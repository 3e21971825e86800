#pragma once

// IOPCServerList and IOPCServerList2: by which clients find the class of a server that they know by its kind or its
// name only. The younger one knows one more name of each server.

#include "budget/ClientBudget.h"
#include "dcom/orpc/MethodTable.h"
#include "opcda/wire/EnumeratorObjects.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcServerList = "13486D50-4821-11D2-A494-3CB306C10000"_uuid;
inline constexpr Uuid iidOpcServerList2 = "9DD0B56C-AD9E-43EE-8305-487F3188BF7A"_uuid;
inline constexpr Uuid iidEnumGuid = "0002E000-0000-0000-C000-000000000046"_uuid;
inline constexpr Uuid iidOpcEnumGuid = "55C382C8-21C7-4E88-96C1-BECFB1E3F483"_uuid;

enum class ServerList : std::uint16_t {
    EnumClassesOfCategories = dcom::orpc::firstOpnum,
    GetClassDetails,
    ClsidFromProgId,
};

// IEnumGUID and IOPCEnumGUID, which differ in their names alone.
template <const Uuid& ownIid>
class EnumGuid final : public ListEnumerator<EnumGuid<ownIid>, Uuid> {
 public:
    explicit EnumGuid(Enumerator<Uuid> classes, Hold memory = {});
    bool isOpenToAll() const override { return true; }

 private:
    void next(std::uint32_t wanted, dcom::ndr::Writer& out, dcom::orpc::CallContext& context) override;
};

extern template class EnumGuid<iidEnumGuid>;
extern template class EnumGuid<iidOpcEnumGuid>;

class ServerListObject;

template <bool younger>
class ServerListInterface final : public dcom::orpc::Dispatched<ServerListInterface<younger>> {
    using typename dcom::orpc::Dispatched<ServerListInterface>::Row;

 public:
    static constexpr Uuid interfaceId = younger ? iidOpcServerList2 : iidOpcServerList;
    static constexpr std::string_view interfaceName = younger ? "IOPCServerList2" : "IOPCServerList";
    using Opnum = ServerList;

    explicit ServerListInterface(ServerListObject& object) : object_(object) {}

 private:
    dcom::Fault enumClasses(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault getDetails(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault classOf(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

    ServerListObject& object_;

 public:
    static constexpr std::array methods{
        Row{Opnum::EnumClassesOfCategories, "EnumClassesOfCategories", &ServerListInterface::enumClasses},
        Row{Opnum::GetClassDetails, "GetClassDetails", &ServerListInterface::getDetails},
        Row{Opnum::ClsidFromProgId, "CLSIDFromProgID", &ServerListInterface::classOf},
    };
};

extern template class ServerListInterface<false>;
extern template class ServerListInterface<true>;

}  // namespace quelm::opcda::wire
