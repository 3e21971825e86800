#include "slikda/ItemNames.h"

#include <algorithm>
#include <functional>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

constexpr std::size_t smallestIndex = 64;

std::uint32_t hashOf(std::string_view folded) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>{}(folded));
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

}  // namespace

std::uint32_t ItemNames::add(std::string_view name) {
    if (name.empty()) {
        throw RuntimeError(errors::invalidCall);
    }
    makeRoom();
    const FoldedKey key(name);
    const std::uint32_t hash = hashOf(key.view());
    if (numberOf(key.view(), hash)) {
        throw RuntimeError(errors::duplicateKey);
    }
    names_.emplace_back(name);
    enter(hash, static_cast<std::uint32_t>(names_.size()));
    return static_cast<std::uint32_t>(names_.size() - 1);
}

std::optional<std::uint32_t> ItemNames::find(std::string_view name) const {
    const FoldedKey key(name);
    return numberOf(key.view(), hashOf(key.view()));
}

std::optional<std::uint32_t> ItemNames::numberOf(std::string_view folded, std::uint32_t hash) const {
    if (index_.empty()) {
        return std::nullopt;
    }
    const std::size_t mask = index_.size() - 1;
    for (std::size_t at = hash & mask; index_[at].place != 0; at = (at + 1) & mask) {
        const IndexEntry& entry = index_[at];
        if (entry.hash == hash && isNamed(names_[entry.place - 1], folded)) {
            return entry.place - 1;
        }
    }
    return std::nullopt;
}

void ItemNames::enter(std::uint32_t hash, std::uint32_t place) {
    const std::size_t mask = index_.size() - 1;
    std::size_t at = hash & mask;
    while (index_[at].place != 0) {
        at = (at + 1) & mask;
    }
    index_[at] = {hash, place};
}

void ItemNames::makeRoom() {
    if ((names_.size() + 1) * 4 <= index_.size() * 3) {
        return;
    }
    std::vector<IndexEntry> larger(std::max(smallestIndex, index_.size() * 2));
    larger.swap(index_);
    for (const IndexEntry& entry : larger) {
        if (entry.place != 0) {
            enter(entry.hash, entry.place);
        }
    }
}

}  // namespace quelm
