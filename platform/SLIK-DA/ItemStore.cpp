#include "SLIK-DA/ItemStore.h"

#include <algorithm>
#include <functional>
#include <numeric>

#include "Shared Types/RuntimeError.h"
#include "Shared Types/Text.h"
#include "Shared Types/TimeSource.h"

namespace quelm {

namespace {

constexpr std::size_t smallestIndex = 64;

std::uint32_t hashOf(std::string_view folded) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(folded));
}

void refuseObject(const Variant& value) {
    if (value.kind() == VariantKind::Object) {
        throw RuntimeError(errors::typeMismatch);
    }
}

char foldAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

// An update pass and a device read look up every item, so plain names are compared without decoding them.
bool isNamed(std::string_view name, std::string_view folded) {
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (static_cast<unsigned char>(name[i]) >= 0x80) {
            return equalsIgnoringCase(name, folded);
        }
        if (i >= folded.size() || foldAscii(name[i]) != folded[i]) {
            return false;
        }
    }
    return name.size() == folded.size();
}

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

void StampConverter::convert(Date local) {
    const bool inRange = local.days > minDateDays - 1 && local.days < maxDateDays;
    lastFileTime_ = inRange && !local.isZero() ? std::max<std::int64_t>(fileTimeFromLocal(local), 0) : 0;
    lastDays_ = local.days;
}

SLIKTag::SLIKTag(StampConverter& stamps, std::string_view name, std::uint8_t accessRights, const Variant& value,
                 std::int16_t quality, Date timestamp)
    : value_(value),
      fileTime_(stamps.fileTime(timestamp)),
      quality_(static_cast<std::uint16_t>(quality)),
      dataType_(static_cast<std::uint16_t>(value.kind())),
      accessRights_(accessRights),
      timestamp_(timestamp),
      stamps_(&stamps),
      name_(name) {}

void SLIKTag::SetVQT(const Variant& varValue, std::int16_t intQuality, Date dtmTimestamp) {
    refuseObject(varValue);
    value_ = varValue;
    quality_ = static_cast<std::uint16_t>(intQuality);
    fileTime_ = stamps_->fileTime(dtmTimestamp);
    timestamp_ = dtmTimestamp;
    ++changes_;
}

SLIKTag& ItemStore::Add(std::string_view strName, std::int32_t lngAccessRights, const Variant& varValue,
                        std::int16_t intQuality, Date dtmTimestamp) {
    if (strName.empty()) {
        throw RuntimeError(errors::invalidCall);
    }
    refuseObject(varValue);
    makeRoom();
    const FoldedKey key(strName);
    const std::uint32_t hash = hashOf(key.view());
    if (numberOf(key.view(), hash) != 0) {
        throw RuntimeError(errors::duplicateKey);
    }
    SLIKTag& tag = tags_.emplace_back(stamps_, strName, static_cast<std::uint8_t>(lngAccessRights & 3), varValue,
                                      intQuality, dtmTimestamp);
    enter(hash, static_cast<std::uint32_t>(tags_.size()));
    browseOrder_.clear();
    return tag;
}

SLIKTag& ItemStore::Item(std::string_view strName) {
    const FoldedKey key(strName);
    const std::uint32_t number = numberOf(key.view(), hashOf(key.view()));
    if (number == 0) {
        throw RuntimeError(errors::invalidCall);
    }
    return tags_[number - 1];
}

const SLIKTag* ItemStore::find(std::string_view name) const {
    const FoldedKey key(name);
    const std::uint32_t number = numberOf(key.view(), hashOf(key.view()));
    return number == 0 ? nullptr : &tags_[number - 1];
}

std::uint32_t ItemStore::numberOf(std::string_view folded, std::uint32_t hash) const {
    if (index_.empty()) {
        return 0;
    }
    const std::size_t mask = index_.size() - 1;
    for (std::size_t at = hash & mask; index_[at].number != 0; at = (at + 1) & mask) {
        const IndexEntry& entry = index_[at];
        if (entry.hash == hash && isNamed(tags_[entry.number - 1].Name(), folded)) {
            return entry.number;
        }
    }
    return 0;
}

void ItemStore::enter(std::uint32_t hash, std::uint32_t number) {
    const std::size_t mask = index_.size() - 1;
    std::size_t at = hash & mask;
    while (index_[at].number != 0) {
        at = (at + 1) & mask;
    }
    index_[at] = {hash, number};
}

void ItemStore::makeRoom() {
    if ((tags_.size() + 1) * 4 <= index_.size() * 3) {
        return;
    }
    std::vector<IndexEntry> larger(std::max(smallestIndex, index_.size() * 2));
    larger.swap(index_);
    for (const IndexEntry& entry : larger) {
        if (entry.number != 0) {
            enter(entry.hash, entry.number);
        }
    }
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
