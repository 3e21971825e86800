#pragma once

// Finding the item that a client names: the same answer to a wrong item ID from every interface.

#include <cstdint>
#include <string_view>

#include "opcda/HResults.h"
#include "slikda/ItemStore.h"

namespace quelm::opcda {

// Bytes; no engineer gives an item a longer name.
inline constexpr std::size_t longestItemId = 4096;

inline constexpr std::uint32_t accessReadable = 1;

inline bool isReadable(const SLIKTag& tag) {
    return (tag.accessRights() & accessReadable) != 0;
}

// Without regard to case. OPC_E_INVALIDITEMID for an ID that is empty or too long, OPC_E_UNKNOWNITEMID for an unknown
// one; tag is then nullptr.
inline HResult findItem(const ItemStore& items, std::string_view itemId, const SLIKTag*& tag) {
    const bool possible = !itemId.empty() && itemId.size() <= longestItemId;
    tag = possible ? items.find(itemId) : nullptr;
    if (tag != nullptr) {
        return S_OK;
    }
    return possible ? OPC_E_UNKNOWNITEMID : OPC_E_INVALIDITEMID;
}

}  // namespace quelm::opcda
