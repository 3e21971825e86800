#pragma once

// Reading and writing by item ID, without a group.

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "OPC DA/Coercion.h"
#include "OPC DA/HResults.h"
#include "SLIK-DA/SLIKNetwork.h"

namespace quelm::opcda {

// To be put on the wire with convert(value, type, ...), which does not fail when error is S_OK.
struct ItemIOReading {
    HResult error = S_OK;
    VarType type = VT_EMPTY;  // the item's canonical type
    std::uint16_t quality = 0;
    std::int64_t fileTime = 0;  // UTC, FILETIME
    Variant value;
};

class ItemIO {
 public:
    explicit ItemIO(SLIKNetwork& control) : control_(&control) {}

    // maxAges: milliseconds, one for each item. A cached value whose time stamp is no older than that is delivered;
    // for the others OnRead is raised once. 0 always asks, 0xFFFFFFFF never does.
    // S_OK, S_FALSE when an item has an error, E_INVALIDARG for no item at all.
    HResult read(std::span<const std::string_view> itemIds, std::span<const std::uint32_t> maxAges,
                 std::vector<ItemIOReading>& readings);
    // OnWrite once for all items that exist; its error code applies to each.
    HResult writeVQT(std::span<const std::string_view> itemIds, std::vector<HResult>& errors);

 private:
    // askedAt: where the answer to each goes in readings.
    void readDevice(std::span<const SLIKTag* const> asked, std::span<const std::size_t> askedAt,
                    std::vector<ItemIOReading>& readings);

    SLIKNetwork* control_;
};

}  // namespace quelm::opcda
