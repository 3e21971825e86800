#include "opcda/NameTree.h"

#include <algorithm>

#include "base/Text.h"

namespace quelm::opcda {

namespace {

// Whether the "." there parts two levels.
bool partsLevels(std::string_view name, std::size_t dot) {
    return dot > 0 && dot + 1 < name.size() && name[dot + 1] != '.';
}

// Without regard to case. Plain names are compared as they stand: a walk looks at every item of the plant.
bool beginsWith(std::string_view name, std::string_view foldedPrefix) {
    for (std::size_t i = 0; i < foldedPrefix.size() && i < name.size(); ++i) {
        const char c = name[i];
        if (static_cast<unsigned char>(c) >= 0x80) {
            return FoldedKey(name).view().starts_with(foldedPrefix);
        }
        if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c) != foldedPrefix[i]) {
            return false;
        }
    }
    return name.size() >= foldedPrefix.size();
}

// The first of a part that does not begin with the (folded) prefix, when no name of the part comes before it.
// Looked for in growing steps, as most branches are small beside the plant.
Order::iterator endOfPrefix(const ItemStore& items, std::string_view prefix, Order part) {
    const auto isBefore = [&](std::uint32_t index) { return beginsWith(items.at(index).Name(), prefix); };
    std::size_t passed = 0;
    std::size_t step = 1;
    while (passed + step <= part.size() && isBefore(part[passed + step - 1])) {
        passed += step;
        step *= 2;
    }
    const Order left = part.subspan(passed, std::min(step, part.size() - passed));
    return part.begin() + (std::partition_point(left.begin(), left.end(), isBefore) - left.begin()) +
           static_cast<std::ptrdiff_t>(passed);
}

}  // namespace

std::size_t firstLevel(std::string_view text) {
    std::size_t dot = text.find('.');
    while (dot != std::string_view::npos && !partsLevels(text, dot)) {
        dot = text.find('.', dot + 1);
    }
    return dot == std::string_view::npos ? text.size() : dot;
}

std::string_view withoutLastLevel(std::string_view text) {
    std::size_t dot = text.rfind('.');
    while (dot != std::string_view::npos && dot > 0 && !partsLevels(text, dot)) {
        dot = text.rfind('.', dot - 1);
    }
    return dot == std::string_view::npos || dot == 0 ? std::string_view() : text.substr(0, dot);
}

std::string joined(std::string_view branch, std::string_view name) {
    std::string full(branch);
    if (!full.empty()) {
        full += '.';
    }
    return full += name;
}

Order namesBelow(const ItemStore& items, std::string_view branch) {
    const Order all = items.browseOrder();
    if (branch.empty()) {
        return all;
    }
    const std::string prefix = foldCase(branch) + '.';
    const std::string deeper = prefix + '.';
    const auto first = std::partition_point(all.begin(), all.end(), [&](std::uint32_t index) {
        const FoldedKey name(items.at(index).Name());
        return compareBrowseOrder(name.view(), prefix) <= 0 || name.view().starts_with(deeper);
    });
    return {first, endOfPrefix(items, prefix, Order(first, all.end()))};
}

std::optional<std::string> branchName(const ItemStore& items, std::string_view branch) {
    const Order below = namesBelow(items, branch);
    if (below.empty()) {
        return std::nullopt;
    }
    return std::string(leftCharacters(items.at(below.front()).Name(), characterCount(branch)));
}

LevelWalk::LevelWalk(const ItemStore& items, std::string_view branch, std::size_t start)
    : items_(&items),
      part_(namesBelow(items, branch)),
      skipped_(branch.empty() ? 0 : characterCount(branch) + 1),
      next_(start) {}

bool LevelWalk::next(Entry& entry) {
    if (next_ >= part_.size()) {
        return false;
    }
    place_ = next_;
    const SLIKTag& tag = items_->at(part_[place_]);
    const std::string_view full = tag.Name();
    const std::string_view rest = full.substr(leftCharacters(full, skipped_).size());
    const std::string_view level = rest.substr(0, firstLevel(rest));
    if (level.size() == rest.size()) {
        entry = {level, full, &tag};
        next_ = place_ + 1;
        return true;
    }
    const std::string_view branch = full.substr(0, full.size() - rest.size() + level.size());
    const Order left = part_.subspan(place_);
    entry = {level, branch, nullptr};
    next_ = place_ + static_cast<std::size_t>(endOfPrefix(*items_, foldCase(branch) + '.', left) - left.begin());
    return true;
}

// All names that begin with the item's and a "." follow it at once, so that one look at the next name spares nearly
// every search.
bool LevelWalk::hasBranchOf(const Entry& entry) const {
    if (next_ >= part_.size()) {
        return false;
    }
    const std::string_view following = items_->at(part_[next_]).Name();
    const std::size_t size = leftCharacters(following, characterCount(entry.fullName)).size();
    return size < following.size() && following[size] == '.' && !namesBelow(*items_, entry.fullName).empty();
}

}  // namespace quelm::opcda
