#pragma once

// The interfaces of all objects and the names of their methods: what clients may bind their connections to, what the
// tests and the fuzzer call, and what docs/opc-interfaces.md must list. It follows from the objects' own lists.

#include <algorithm>
#include <array>

#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/OpcServerObject.h"

namespace quelm::opcda::wire {

inline constexpr auto interfaceTable = [] {
    constexpr auto& server = OpcServerObject::Interfaces::rows;
    constexpr auto& group = OpcGroupObject::Interfaces::rows;
    std::array<InterfaceRow, server.size() + group.size() + enumeratorRows.size()> all{};
    std::copy(enumeratorRows.begin(), enumeratorRows.end(),
              std::copy(group.begin(), group.end(), std::copy(server.begin(), server.end(), all.begin())));
    return all;
}();

constexpr bool isOpcInterface(const Uuid& iid) {
    return std::any_of(interfaceTable.begin(), interfaceTable.end(),
                       [&iid](const InterfaceRow& row) { return row.iid == iid; });
}

}  // namespace quelm::opcda::wire
