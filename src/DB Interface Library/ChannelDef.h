#pragma once

// The site's I/O channel definitions, keyed "C" + channel ID.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/IntIndex.h"

namespace quelm {

// What a channel is, and whose: IOS5's (Q5) or IOS6's (Q6).
namespace definitiontype {
inline constexpr std::int32_t none = 0;  // nothing usable in the database; reads like a channel without definition
inline constexpr std::int32_t ios5Channel = 1;
inline constexpr std::int32_t ios5Implicit = 2;
inline constexpr std::int32_t ios6Channel = 3;
inline constexpr std::int32_t ios6MultiValueCSV = 4;
inline constexpr std::int32_t ios6MultiValueUDT = 5;
}  // namespace definitiontype

struct ChannelDef {
    std::int32_t ID = 0;
    std::string Name;
    std::int32_t DefinitionType = definitiontype::none;  // of those above, or any other number
};

class ChannelDefCollection {
 public:
    // A later definition of the same channel is dropped.
    void Add(ChannelDef definition);
    std::size_t Count() const { return items_.size(); }
    // By channel ID, the number behind the "C" of the key; nullptr when there is none. O(1), no allocation.
    const ChannelDef* Channel(std::int32_t lngChannelID) const;
    auto begin() const { return items_.begin(); }
    auto end() const { return items_.end(); }

 private:
    std::vector<ChannelDef> items_;
    IntIndex index_;
};

}  // namespace quelm
