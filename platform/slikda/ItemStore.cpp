#include "slikda/ItemStore.h"

#include <algorithm>
#include <numeric>

#include "base/Text.h"

namespace quelm {

namespace {

// "." first, then the other bytes in their order.
unsigned char rank(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return c == '.' ? 0 : static_cast<unsigned char>(byte < '.' ? byte + 1 : byte);
}

// A text whose plain byte order is the browse order.
std::string sortKey(std::string_view name) {
    std::string key = foldCase(name);
    std::transform(key.begin(), key.end(), key.begin(), [](char c) { return static_cast<char>(rank(c)); });
    return key;
}

}  // namespace

void ItemStore::add(std::uint16_t varType, std::uint8_t accessRights) {
    tags_.emplace_back(*this, static_cast<std::uint32_t>(tags_.size()), varType, accessRights);
    browseOrder_.clear();
}

const ItemBlock& ItemStore::show(const ItemBlock& block) {
    const ItemBlock& before = *shown_;
    shown_ = &block;
    return before;
}

const SLIKTag* ItemStore::find(std::string_view name) const {
    const auto number = names_->find(name);
    return number ? &tags_[*number] : nullptr;
}

const std::vector<std::uint32_t>& ItemStore::browseOrder() const {
    if (browseOrder_.size() == tags_.size()) {
        return browseOrder_;
    }
    std::vector<std::string> keys;
    keys.reserve(tags_.size());
    for (const SLIKTag& tag : tags_) {
        keys.push_back(sortKey(tag.Name()));
    }
    std::vector<std::uint32_t> order(tags_.size());
    std::iota(order.begin(), order.end(), 0U);
    std::sort(order.begin(), order.end(),
              [&keys](std::uint32_t left, std::uint32_t right) { return keys[left] < keys[right]; });
    browseOrder_.swap(order);
    return browseOrder_;
}

int compareBrowseOrder(std::string_view foldedLeft, std::string_view foldedRight) {
    const auto [left, right] =
        std::mismatch(foldedLeft.begin(), foldedLeft.end(), foldedRight.begin(), foldedRight.end());
    if (left == foldedLeft.end() || right == foldedRight.end()) {
        return (left != foldedLeft.end() ? 1 : 0) - (right != foldedRight.end() ? 1 : 0);
    }
    return rank(*left) < rank(*right) ? -1 : 1;
}

}  // namespace quelm
