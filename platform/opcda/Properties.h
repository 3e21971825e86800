#pragma once

// The item properties 1 to 6: what the standard asks of every item.

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "opcda/Coercion.h"
#include "opcda/HResults.h"
#include "slikda/ItemStore.h"

namespace quelm::opcda {

struct PropertyDescription {
    std::uint32_t id;
    std::string_view text;
    VarType type;
};

// To be put on the wire with convert(value, type, ...).
struct PropertyValue {
    HResult error = S_OK;
    VarType type = VT_EMPTY;
    Variant value;
};

class Properties {
 public:
    explicit Properties(const ItemStore& items) : items_(&items) {}

    // OPC_E_INVALIDITEMID for an empty ID, OPC_E_UNKNOWNITEMID for an unknown one.
    HResult available(std::string_view itemId, std::vector<PropertyDescription>& described) const;
    // The same; S_FALSE when a property has an error (OPC_E_INVALID_PID). The time stamp is in UTC.
    HResult values(std::string_view itemId, std::span<const std::uint32_t> ids,
                   std::vector<PropertyValue>& found) const;
    // No property is an item of its own: E_FAIL for each known one, OPC_E_INVALID_PID for others, S_FALSE in all.
    HResult lookupItemIds(std::string_view itemId, std::span<const std::uint32_t> ids,
                          std::vector<HResult>& errors) const;

 private:
    const ItemStore* items_;
};

}  // namespace quelm::opcda
