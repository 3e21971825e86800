#pragma once

// One created tag: what an OPC item is fed from and how its value is presented. Filled once while the site's items are
// created; afterwards only the update pass reads it.

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "base/Variant.h"
#include "slikda/ISLIKServer.h"

namespace quelm {

inline const std::string noIntervalType;

// 64 bytes, for each of a hundred thousand.
class TagConfig {
 public:
    std::string_view OPCTagName;  // item name, key of the tag in its collection, which keeps the text
    // Of the PID, kept by the site manager for all its tags; "" for channels. Never nullptr.
    const std::string* IntervalType = &noIntervalType;
    Variant DefaultValue;                // used when the current value does not convert to the item's type
    ISLIKTag* SlikTag = nullptr;         // nullptr when the control refused the item
    std::int32_t PID = 0;                // 0 for channel-fed tags
    std::int32_t IOChannelID_Value = 0;  // 0 for PID-fed tags
    std::int32_t IOChannelID_MC = 0;     // channel of the value's monitor code; 0 = none
    std::int16_t OPCDataType = 0;        // VARTYPE 4, 3, 8, 11 or 7; -1 for an unknown data type code
    bool DownIsInvalid = false;          // a down monitor code gives Bad instead of Good
    bool UseSubStatus = false;           // monitor codes select OPC sub-status qualities

    bool IsValueFromPID() const { return PID != 0; }
};
static_assert(sizeof(TagConfig) == 64);

// Tags in creation order, keyed by name without regard to case. A site may have a hundred thousand of them, so they
// lie side by side in memory, a name is kept once (with its item), and the keys are let go after the last Add.
class TagConfigCollection {
 public:
    TagConfigCollection() = default;
    TagConfigCollection(const TagConfigCollection&) = delete;
    TagConfigCollection& operator=(const TagConfigCollection&) = delete;

    std::size_t Count() const { return tags_.size(); }
    // Takes a copy of the name. Raises RuntimeError 457 for a name that is taken; the collection is then unchanged.
    // The reference is valid until the next Add.
    TagConfig& Add(const TagConfig& tag);
    // Gives the tag that was added last its item, whose name then serves for the tag's as well.
    void AttachItem(ISLIKTag& item);
    // After the last Add: gives back what only further tags would need.
    void Close();

    auto begin() const { return tags_.begin(); }
    auto end() const { return tags_.end(); }

 private:
    void enter(std::uint32_t position);
    void makeRoom();

    std::vector<TagConfig> tags_;
    std::deque<std::string> names_;     // of tags without item
    std::vector<std::uint32_t> index_;  // open addressing by folded name: position + 1; 0: free
};

}  // namespace quelm
