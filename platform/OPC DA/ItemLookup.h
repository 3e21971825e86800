#pragma once

// Finding the item that a client names: the same answer to a wrong item ID from every interface.

#include <string_view>

#include "OPC DA/HResults.h"
#include "SLIK-DA/ItemStore.h"

namespace quelm::opcda {

// Without regard to case. OPC_E_INVALIDITEMID for an empty ID, OPC_E_UNKNOWNITEMID for an unknown one; tag is then
// nullptr.
inline HResult findItem(const ItemStore& items, std::string_view itemId, const SLIKTag*& tag) {
    tag = itemId.empty() ? nullptr : items.find(itemId);
    if (tag != nullptr) {
        return S_OK;
    }
    return itemId.empty() ? OPC_E_INVALIDITEMID : OPC_E_UNKNOWNITEMID;
}

}  // namespace quelm::opcda
