#pragma once

// A client's walk through the item names: flat, or level by level through the hierarchy that they make (NameTree), from
// a position that is kept for it.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "budget/ClientBudget.h"
#include "opcda/Coercion.h"
#include "opcda/Enumerators.h"
#include "opcda/HResults.h"
#include "slikda/ItemStore.h"

namespace quelm::opcda {

// Numbers of the interface's enumerations.
enum class NamespaceType : std::uint16_t { hierarchical = 1, flat = 2 };
enum class BrowseDirection : std::uint16_t { up = 1, down = 2, to = 3 };
enum class BrowseType : std::uint16_t { branch = 1, leaf = 2, flat = 3 };

class Browser {
 public:
    // What clients leaf through is held in the budget.
    Browser(const ItemStore& items, std::shared_ptr<ClientBudget> budget)
        : items_(&items), budget_(std::move(budget)) {}

    NamespaceType organization() const { return NamespaceType::hierarchical; }
    // The full name of the branch where the client stands; "" at the top.
    const std::string& position() const { return position_; }

    // up: text is not looked at; E_FAIL at the top. down: a branch at this level. to: a branch by its full name, ""
    // for the top. E_INVALIDARG when there is no such branch or direction; the position is then unchanged.
    HResult changePosition(std::uint16_t direction, std::string_view text);

    // Names at the position, sorted without regard to case: branches or leaves of this level, or (flat) the full item
    // IDs of everything at and below it. filter: "" or a pattern (see NameFilter), without regard to case; for leaves
    // and flat also a type in which a group would take the item (VT_EMPTY: all) and access rights (a bit mask, 0: all).
    // S_OK; S_FALSE when nothing was found (an empty list); OPC_E_INVALIDFILTER; E_INVALIDARG for another type;
    // E_OUTOFMEMORY when the client's budget has no room for the list. 200,000 items take at most 40 ms.
    HResult browse(std::uint16_t type, std::string_view filter, VarType dataType, std::uint32_t accessRights,
                   NameEnumerator& names) const;

    // The full ID of a leaf or branch of this level, of the position itself (name ""), or of a full item ID (what a
    // flat browse gave). E_INVALIDARG for any other name.
    HResult itemId(std::string_view name, std::string& itemId) const;

    // Always an empty list: S_FALSE; E_INVALIDARG for an unknown item.
    HResult accessPaths(std::string_view itemId, NameEnumerator& paths) const;

 private:
    HResult moveTo(std::string_view branch);

    const ItemStore* items_;
    std::shared_ptr<ClientBudget> budget_;
    std::string position_;
};

}  // namespace quelm::opcda
