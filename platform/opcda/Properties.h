#pragma once

// The item properties: 1 to 7, which clients expect of every item, and those that the plant has something to say under
// (101, and 5000 and up).

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "opcda/Coercion.h"
#include "opcda/HResults.h"
#include "opcda/PlantAccess.h"

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

// One property of an item as a browser shows it.
struct ItemProperty {
    HResult error = S_OK;
    PropertyDescription description;  // of one that is not known: only its number
    Variant value;                    // to be put on the wire as the description's type
};

class Properties {
 public:
    explicit Properties(PlantAccess plant) : plant_(std::move(plant)) {}

    // OPC_E_INVALIDITEMID for an empty ID, OPC_E_UNKNOWNITEMID for an unknown one.
    HResult available(std::string_view itemId, std::vector<PropertyDescription>& described) const;

    using ValuesDone = std::function<void(HResult result, const std::vector<PropertyValue>& found)>;
    // The same failures, E_INVALIDARG for no property at all; S_FALSE when a property has an error: OPC_E_INVALID_PID,
    // what a read gives for an item that cannot be read, E_FAIL for the time stamp (UTC) of an item without one. Value,
    // quality and time stamp are the device's: OnRead once if one of them is asked for. done once, maybe before this
    // returns.
    void values(std::string_view itemId, std::span<const std::uint32_t> ids, ValuesDone done) const;
    // No property is an item of its own: E_FAIL for each that the plant says something under, OPC_E_INVALID_PID for all
    // others, S_FALSE in all.
    HResult lookupItemIds(std::string_view itemId, std::span<const std::uint32_t> ids,
                          std::vector<HResult>& errors) const;
    // For a browser: these properties of an item, or (no ids) all that it has. Values, where they are wanted, come from
    // the cache: a device read of a whole level would hold up the plant. Results as those of values().
    static HResult ofItem(const SLIKTag& tag, std::span<const std::uint32_t> ids, bool withValues,
                          std::vector<ItemProperty>& found);

 private:
    PlantAccess plant_;
};

}  // namespace quelm::opcda
