#pragma once

// The control's items and their cache: what every client reads. Made for 100,000 items: lean, stable addresses,
// and a SetVQT that neither allocates nor converts a time stamp twice.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "SLIK-DA/ISLIKServer.h"

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

class SLIKTag final : public ISLIKTag {
 public:
    SLIKTag(StampConverter& stamps, std::string_view name, std::uint8_t accessRights, const Variant& value,
            std::int16_t quality, Date timestamp);
    SLIKTag(const SLIKTag&) = delete;
    SLIKTag& operator=(const SLIKTag&) = delete;

    const std::string& Name() const override { return name_; }
    std::int16_t DataType() const override { return static_cast<std::int16_t>(dataType_); }
    const Variant& Value() const override { return value_; }
    std::int16_t Quality() const override { return static_cast<std::int16_t>(quality_); }
    Date Timestamp() const override { return timestamp_; }
    void SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) override;

    // The same as clients see it: VARTYPE, the quality word's 16 bits, the time stamp in UTC as FILETIME.
    std::uint16_t varType() const { return dataType_; }
    std::uint16_t qualityWord() const { return quality_; }
    std::int64_t fileTime() const { return fileTime_; }
    // 1 = readable, 2 = writable
    std::uint8_t accessRights() const { return accessRights_; }
    // Counts the SetVQT calls; wraps round.
    std::uint32_t changes() const { return changes_; }

 private:
    Variant value_;
    std::int64_t fileTime_ = 0;
    std::uint16_t quality_ = 0;
    std::uint16_t dataType_ = 0;
    std::uint8_t accessRights_ = 0;
    std::uint32_t changes_ = 0;
    Date timestamp_;
    StampConverter* stamps_;
    std::string name_;
};

class ItemStore final : public ISLIKTags {
 public:
    ItemStore() = default;
    ItemStore(const ItemStore&) = delete;
    ItemStore& operator=(const ItemStore&) = delete;

    SLIKTag& Add(std::string_view strName, std::int32_t lngAccessRights, const Variant& varValue,
                 std::int16_t intQuality, Date dtmTimestamp) override;
    SLIKTag& Item(std::string_view strName) override;
    std::size_t Count() const override { return tags_.size(); }

    // Without regard to case; nullptr when there is no such item. No allocation for names of usual length.
    const SLIKTag* find(std::string_view name) const;
    // index: 0 to Count() - 1, in the order of adding
    const SLIKTag& at(std::size_t index) const { return tags_[index]; }

    // All items ordered by folded name with "." before every other character, so that the items below one branch of
    // the name hierarchy stand together. Made at the first call after an Add, then kept (4 bytes an item).
    const std::vector<std::uint32_t>& browseOrder() const;

    StampConverter& stamps() { return stamps_; }

 private:
    // Of an open-addressing table; a whole hash beside the number spares nearly every look at a name.
    struct IndexEntry {
        std::uint32_t hash = 0;
        std::uint32_t number = 0;  // index + 1; 0: free
    };

    std::uint32_t numberOf(std::string_view folded, std::uint32_t hash) const;
    void enter(std::uint32_t hash, std::uint32_t number);
    void makeRoom();

    StampConverter stamps_;
    std::deque<SLIKTag> tags_;
    std::vector<IndexEntry> index_;
    mutable std::vector<std::uint32_t> browseOrder_;
};

// Compares two names in the order of ItemStore::browseOrder; both already folded.
int compareBrowseOrder(std::string_view foldedLeft, std::string_view foldedRight);

}  // namespace quelm
