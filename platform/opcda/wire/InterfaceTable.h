#pragma once

// The interfaces of all objects and the names of their methods: what clients may bind their connections to, what the
// tests and the fuzzer call, and what docs/opc-interfaces.md must list. It follows from the objects' own lists.

#include <algorithm>
#include <array>

#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/OpcServerObject.h"
#include "opcda/wire/ServerListObject.h"

namespace quelm::opcda::wire {

namespace detail {

// In the order of the objects' lists; interfaces that several objects have stand here as often.
inline constexpr auto interfacesOfAll = [] {
    constexpr auto& server = OpcServerObject::Interfaces::rows;
    constexpr auto& group = OpcGroupObject::Interfaces::rows;
    constexpr std::array points{rowOf<ConnectionPointObject>()};
    std::array<InterfaceRow,
               server.size() + group.size() + points.size() + enumeratorRows.size() + serverListRows.size()>
        all{};
    auto end = std::copy(server.begin(), server.end(), all.begin());
    end = std::copy(group.begin(), group.end(), end);
    end = std::copy(points.begin(), points.end(), end);
    end = std::copy(enumeratorRows.begin(), enumeratorRows.end(), end);
    std::copy(serverListRows.begin(), serverListRows.end(), end);
    return all;
}();

constexpr bool isFirstOfItsKind(const InterfaceRow& row) {
    return &row == &*std::find_if(interfacesOfAll.begin(), interfacesOfAll.end(),
                                  [&row](const InterfaceRow& each) { return each.iid == row.iid; });
}

}  // namespace detail

inline constexpr auto interfaceTable = [] {
    constexpr auto& all = detail::interfacesOfAll;
    std::array<InterfaceRow, std::count_if(all.begin(), all.end(), detail::isFirstOfItsKind)> table{};
    std::copy_if(all.begin(), all.end(), table.begin(), detail::isFirstOfItsKind);
    return table;
}();

constexpr bool isOpcInterface(const Uuid& iid) {
    return std::ranges::find(interfaceTable, iid, &InterfaceRow::iid) != interfaceTable.end();
}
// Of the list of servers, which needn't know who asks.
constexpr bool isServerListInterface(const Uuid& iid) {
    return std::ranges::find(serverListRows, iid, &InterfaceRow::iid) != serverListRows.end();
}

}  // namespace quelm::opcda::wire
