#pragma once

// The snapshot of a site's CurrentIO table: every I/O channel's latest value and the I/O servers' health records,
// keyed by IOID. Replaced whole on every read and looked up for every channel item on every update pass.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Shared Types/Date.h"
#include "Shared Types/Variant.h"

namespace quelm {

struct CurrentIORecord {
    std::string IOID;
    Date TStamp;         // local time of the I/O server's last write; zero date for NULL or no date
    Variant NValue;      // typed as the database delivers it; Null for NULL
    std::string XValue;  // the value as XML text where it is not a plain number; otherwise empty
};

class CurrentIOIndex;

class CurrentIOCollection {
 public:
    // Of two records with the same IOID the first is kept. previous: the snapshot before this one; when it holds the
    // same IOIDs in the same order (the usual case) its key index is shared instead of built again.
    static std::shared_ptr<const CurrentIOCollection> Make(std::vector<CurrentIORecord> records,
                                                           const CurrentIOCollection* previous = nullptr);

    std::size_t Count() const { return records_.size(); }
    // The record with that IOID (without regard to case), or nullptr.
    const CurrentIORecord* Item(std::string_view strIOID) const;
    // The record "C" + channel ID in decimal: the same as Item of that key, without making the text.
    const CurrentIORecord* Channel(std::int32_t lngChannelID) const;
    const std::vector<CurrentIORecord>& Records() const { return records_; }

 private:
    std::vector<CurrentIORecord> records_;
    std::shared_ptr<const CurrentIOIndex> index_;
};

}  // namespace quelm
