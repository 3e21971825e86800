#pragma once

// Reading and writing by item ID, without a group.

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "opcda/Coercion.h"
#include "opcda/HResults.h"
#include "opcda/PlantAccess.h"

namespace quelm::opcda {

// To be put on the wire with convert(value, type, ...), which does not fail when error is S_OK.
struct ItemIOReading {
    HResult error = S_OK;
    VarType type = VT_EMPTY;  // the item's canonical type
    std::uint16_t quality = 0;
    std::int64_t fileTime = 0;  // UTC, FILETIME
    Variant value;
    const SLIKTag* asked = nullptr;  // to be asked for
};

class ItemIO {
 public:
    explicit ItemIO(PlantAccess plant) : plant_(std::move(plant)) {}

    using ReadDone = std::function<void(HResult result, std::vector<ItemIOReading>& readings)>;
    using WriteDone = std::function<void(HResult result, const std::vector<HResult>& errors)>;

    // maxAges: milliseconds, one for each item. A cached value whose time stamp is no older than that is delivered;
    // for the others OnRead is raised once. 0 always asks, 0xFFFFFFFF never does. True: readings and result are the
    // answer (S_OK, S_FALSE when an item has an error, E_INVALIDARG for no item at all). False: the rest is to be asked
    // for with readDevice.
    bool readCache(std::span<const std::string_view> itemIds, std::span<const std::uint32_t> maxAges,
                   std::vector<ItemIOReading>& readings, HResult& result) const;
    // Completes what readCache left open; done once, maybe before this returns.
    void readDevice(std::vector<ItemIOReading> readings, ReadDone done);
    // OnWrite once for all items that exist; its error code applies to each. done once, maybe before this returns.
    void writeVQT(std::span<const std::string_view> itemIds, WriteDone done);

 private:
    PlantAccess plant_;
};

}  // namespace quelm::opcda
