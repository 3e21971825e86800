#pragma once

// The interfaces of all objects and the names of their methods, in one table: what clients may bind their connections
// to, what the tests and the fuzzer call, and what docs/opc-interfaces.md must list.

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "dcom/orpc/ComObject.h"
#include "opcda/wire/Iids.h"

namespace quelm::opcda::wire {

struct InterfaceRow {
    dcom::Uuid iid;
    std::string_view name;
    std::span<const std::string_view> methods;  // from firstOpnum on
};

// The three methods of IUnknown before it never travel.
inline constexpr std::uint16_t firstOpnum = 3;

namespace methods {

inline constexpr std::string_view server[] = {"AddGroup",  "GetErrorString", "GetGroupByName",
                                              "GetStatus", "RemoveGroup",    "CreateGroupEnumerator"};
inline constexpr std::string_view common[] = {"SetLocaleID", "GetLocaleID", "QueryAvailableLocaleIDs", "GetErrorString",
                                              "SetClientName"};
inline constexpr std::string_view browse[] = {"QueryOrganization", "ChangeBrowsePosition", "BrowseOPCItemIDs",
                                              "GetItemID", "BrowseAccessPaths"};
inline constexpr std::string_view itemProperties[] = {"QueryAvailableProperties", "GetItemProperties", "LookupItemIDs"};
inline constexpr std::string_view itemIo[] = {"Read", "WriteVQT"};
inline constexpr std::string_view groupStateMgt[] = {"GetState", "SetState", "SetName", "CloneGroup"};
inline constexpr std::string_view itemMgt[] = {"AddItems",         "ValidateItems", "RemoveItems",     "SetActiveState",
                                               "SetClientHandles", "SetDatatypes",  "CreateEnumerator"};
inline constexpr std::string_view syncIo[] = {"Read", "Write"};
inline constexpr std::string_view asyncIo2[] = {"Read", "Write", "Refresh2", "Cancel2", "SetEnable", "GetEnable"};
inline constexpr std::string_view enumerator[] = {"Next", "Skip", "Reset", "Clone"};

}  // namespace methods

inline constexpr std::array interfaceTable{
    InterfaceRow{iidOpcServer, "IOPCServer", methods::server},
    InterfaceRow{iidOpcCommon, "IOPCCommon", methods::common},
    InterfaceRow{iidOpcBrowseServerAddressSpace, "IOPCBrowseServerAddressSpace", methods::browse},
    InterfaceRow{iidOpcItemProperties, "IOPCItemProperties", methods::itemProperties},
    InterfaceRow{iidOpcItemIo, "IOPCItemIO", methods::itemIo},
    InterfaceRow{iidOpcGroupStateMgt, "IOPCGroupStateMgt", methods::groupStateMgt},
    InterfaceRow{iidOpcItemMgt, "IOPCItemMgt", methods::itemMgt},
    InterfaceRow{iidOpcSyncIo, "IOPCSyncIO", methods::syncIo},
    InterfaceRow{iidOpcAsyncIo2, "IOPCAsyncIO2", methods::asyncIo2},
    InterfaceRow{iidEnumString, "IEnumString", methods::enumerator},
    InterfaceRow{iidEnumUnknown, "IEnumUnknown", methods::enumerator},
    InterfaceRow{iidEnumOpcItemAttributes, "IEnumOPCItemAttributes", methods::enumerator},
};

constexpr bool isOpcInterface(const dcom::Uuid& iid) {
    return std::any_of(interfaceTable.begin(), interfaceTable.end(),
                       [&iid](const InterfaceRow& row) { return row.iid == iid; });
}

// One interface that an object offers. An object has a table of them, in the order in which clients ask most.
template <class Object>
struct Offered {
    dcom::Uuid iid;
    dcom::orpc::Interface* (*of)(Object& object);
};

// nullptr: the object does not offer it.
template <class Object, class Table>
dcom::orpc::Interface* findOffered(const Table& table, Object& object, const dcom::Uuid& iid) {
    const auto row = std::find_if(table.begin(), table.end(), [&iid](const auto& each) { return each.iid == iid; });
    return row == table.end() ? nullptr : row->of(object);
}

}  // namespace quelm::opcda::wire
