#pragma once

// Value, quality and time stamp of every item at one time: what the plant hands over to the network, which shows it to
// clients as it stands until the next one comes. A block is written by the plant alone, and by nobody once it is handed
// over, so that both sides may read it.

#include <cstdint>
#include <vector>

#include "base/Date.h"
#include "base/Variant.h"

namespace quelm {

// Local time stamps as UTC in 100-nanosecond units since 1601. All items of a pass carry the same stamp, so the last
// conversion is kept.
class StampConverter {
 public:
    // 0 for no date and for what lies outside a Date's range.
    std::int64_t fileTime(Date local) {
        if (local.days != lastDays_) {
            convert(local);
        }
        return lastFileTime_;
    }

 private:
    void convert(Date local);

    double lastDays_ = 0;
    std::int64_t lastFileTime_ = 0;
};

struct ItemValue {
    Variant value;
    std::uint32_t stamp = 0;    // place in the block's stamps
    std::uint16_t quality = 0;  // the quality word's 16 bits
    std::uint16_t mark = 0;     // the block's mark once the item is set in it
};

struct ItemBlock {
    struct Stamp {
        Date local;
        std::int64_t fileTime = 0;  // UTC, FILETIME
    };

    const Stamp& stampOf(const ItemValue& item) const { return stamps[item.stamp]; }
    // The place of a stamp, which is a new one unless it is the last one's.
    std::uint32_t placeOf(Date local, StampConverter& converter) {
        if (stamps.empty() || stamps.back().local.days != local.days) {
            addStamp({local, converter.fileTime(local)});
        }
        return static_cast<std::uint32_t>(stamps.size() - 1);
    }
    std::uint32_t placeOf(const Stamp& stamp);
    // Gives memory back that only items with a stamp of their own each need.
    void shrinkStamps();

    void addStamp(const Stamp& stamp);

    std::vector<ItemValue> values;  // by the items' numbers
    std::vector<Stamp> stamps;      // runs of items share one
    std::uint16_t mark = 0;
    bool sourcesLost = false;  // nothing that the items are fed from can be reached
};

}  // namespace quelm
