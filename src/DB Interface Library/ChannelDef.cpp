#include "DB Interface Library/ChannelDef.h"

#include <utility>

namespace quelm {

void ChannelDefCollection::Add(ChannelDef definition) {
    if (index_.add(definition.ID, static_cast<std::uint32_t>(items_.size()))) {
        items_.push_back(std::move(definition));
    }
}

const ChannelDef* ChannelDefCollection::Channel(std::int32_t lngChannelID) const {
    const std::uint32_t position = index_.find(lngChannelID);
    return position == IntIndex::none ? nullptr : &items_[position];
}

}  // namespace quelm
