#include "OPC/OPC DA Server/TagConfig.h"

#include <algorithm>
#include <bit>
#include <functional>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

TagConfig& TagConfigCollection::Add(const TagConfig& tag) {
    makeRoom();
    const auto position = static_cast<std::uint32_t>(tags_.size());
    names_.emplace_back(tag.OPCTagName);
    try {
        tags_.push_back(tag);
        tags_.back().OPCTagName = names_.back();
        enter(position);
    } catch (...) {
        tags_.resize(position);
        names_.pop_back();
        throw;
    }
    return tags_.back();
}

void TagConfigCollection::enter(std::uint32_t position) {
    const std::string_view name = tags_[position].OPCTagName;
    const std::size_t mask = index_.size() - 1;
    std::size_t at = std::hash<std::string_view>{}(FoldedKey(name).view()) & mask;
    for (; index_[at] != 0; at = (at + 1) & mask) {
        if (equalsIgnoringCase(tags_[index_[at] - 1].OPCTagName, name)) {
            throw RuntimeError(errors::duplicateKey);
        }
    }
    index_[at] = position + 1;
}

// Never more than half full.
void TagConfigCollection::makeRoom() {
    if ((tags_.size() + 1) * 2 <= index_.size()) {
        return;
    }
    index_.assign(std::bit_ceil(std::max<std::size_t>(64, (tags_.size() + 1) * 2)), 0);
    for (std::uint32_t position = 0; position < tags_.size(); ++position) {
        enter(position);
    }
}

void TagConfigCollection::AttachItem(ISLIKTag& item) {
    tags_.back().SlikTag = &item;
    tags_.back().OPCTagName = item.Name();
    names_.pop_back();
}

void TagConfigCollection::Close() {
    tags_.shrink_to_fit();
    index_ = {};
}

}  // namespace quelm
