#include "slikda/ItemBlock.h"

#include <algorithm>

#include "base/TimeSource.h"

namespace quelm {

namespace {

constexpr std::size_t usualStamps = 1024;

}  // namespace

void StampConverter::convert(Date local) {
    const bool inRange = local.days > minDateDays - 1 && local.days < maxDateDays;
    lastFileTime_ = inRange && !local.isZero() ? std::max<std::int64_t>(fileTimeFromLocal(local), 0) : 0;
    lastDays_ = local.days;
}

std::uint32_t ItemBlock::placeOf(const Stamp& stamp) {
    if (stamps.empty() || stamps.back().local.days != stamp.local.days) {
        addStamp(stamp);
    }
    return static_cast<std::uint32_t>(stamps.size() - 1);
}

// A block that is written to for long collects stamps that no item has any more.
void ItemBlock::addStamp(const Stamp& stamp) {
    if (stamps.size() >= 2 * values.size() + usualStamps) {
        std::vector<Stamp> used;
        for (ItemValue& item : values) {
            if (item.mark != mark) {
                continue;  // not set in this batch: of no meaning yet
            }
            const Stamp& itsOwn = stamps[item.stamp];
            if (used.empty() || used.back().local.days != itsOwn.local.days) {
                used.push_back(itsOwn);
            }
            item.stamp = static_cast<std::uint32_t>(used.size() - 1);
        }
        stamps.swap(used);
    }
    stamps.push_back(stamp);
}

void ItemBlock::shrinkStamps() {
    if (stamps.capacity() > usualStamps) {
        stamps = std::vector<Stamp>();
    }
}

}  // namespace quelm
