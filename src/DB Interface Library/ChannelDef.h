#pragma once

// The site's I/O channel definitions, keyed "C" + channel ID.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/IntIndex.h"

namespace quelm {

struct ChannelDef {
    std::int32_t ID = 0;
    std::string Name;
    // 1 Q5 I/O, 2 Q5 implicit, 3 Q6 I/O, 4 Q6 multivalue CSV, 5 Q6 multivalue UDT channel; 0 when the database
    // holds nothing usable, which reads like a channel without definition.
    std::int32_t DefinitionType = 0;
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
