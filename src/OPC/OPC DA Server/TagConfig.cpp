#include "OPC/OPC DA Server/TagConfig.h"

#include <functional>
#include <utility>

#include "Shared Types/RuntimeError.h"
#include "Shared Types/Text.h"

namespace quelm {

std::size_t TagConfigCollection::NameHash::operator()(std::uint32_t position) const {
    const FoldedKey key((*tags)[position].OPCTagName);
    return std::hash<std::string_view>{}(key.view());
}

bool TagConfigCollection::NameEqual::operator()(std::uint32_t left, std::uint32_t right) const {
    return left == right || equalsIgnoringCase((*tags)[left].OPCTagName, (*tags)[right].OPCTagName);
}

TagConfigCollection::TagConfigCollection() : names_(16, NameHash{&tags_}, NameEqual{&tags_}) {}

TagConfig& TagConfigCollection::Add(TagConfig tag) {
    const auto position = static_cast<std::uint32_t>(tags_.size());
    tags_.push_back(std::move(tag));
    if (!names_.insert(position).second) {
        tags_.pop_back();
        throw RuntimeError(errors::duplicateKey);
    }
    return tags_.back();
}

void TagConfigCollection::Trim() {
    tags_.shrink_to_fit();
}

}  // namespace quelm
