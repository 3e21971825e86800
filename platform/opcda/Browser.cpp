#include "opcda/Browser.h"

#include <algorithm>
#include <optional>
#include <span>

#include "base/Text.h"
#include "opcda/ItemLookup.h"
#include "opcda/NameFilter.h"

namespace quelm::opcda {

namespace {

using Order = std::span<const std::uint32_t>;

// Whether the "." there parts two levels.
bool partsLevels(std::string_view name, std::size_t dot) {
    return dot > 0 && dot + 1 < name.size() && name[dot + 1] != '.';
}

// Length of the first level's name; the whole text when it is the last.
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

// The part of the browse order that lies below a branch.
class Walk {
 public:
    Walk(const ItemStore& items, Order order) : items_(&items), order_(order) {}

    // branch: full name, "" for the top.
    Order below(std::string_view branch) const {
        if (branch.empty()) {
            return order_;
        }
        const std::string prefix = foldCase(branch) + '.';
        const std::string deeper = prefix + '.';
        const auto first = std::partition_point(order_.begin(), order_.end(), [&](std::uint32_t index) {
            const FoldedKey name(items_->at(index).Name());
            return compareBrowseOrder(name.view(), prefix) <= 0 || name.view().starts_with(deeper);
        });
        return {first, endOf(prefix, Order(first, order_.end()))};
    }

    // The first of a part that does not begin with the (folded) prefix, when no name of the part comes before it.
    // Looked for in growing steps, as most branches are small beside the plant.
    Order::iterator endOf(std::string_view prefix, Order part) const {
        const auto isBefore = [&](std::uint32_t index) { return beginsWith(items_->at(index).Name(), prefix); };
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

 private:
    const ItemStore* items_;
    Order order_;
};

struct Wanted {
    NameFilter name;
    VarType dataType;
    std::uint32_t accessRights;

    bool takes(const SLIKTag& tag, std::string_view shown) const {
        return isConvertible(tag.varType(), dataType) &&
               (accessRights == 0 || (tag.accessRights() & accessRights) != 0) && name.matches(shown);
    }
};

std::vector<std::string_view> flatNames(const ItemStore& items, Order part, const Wanted& wanted) {
    std::vector<std::string_view> names;
    for (const std::uint32_t index : part) {
        const SLIKTag& tag = items.at(index);
        if (wanted.takes(tag, tag.Name())) {
            names.emplace_back(tag.Name());
        }
    }
    return names;
}

// skipped: characters of the names that stand before this level.
std::vector<std::string_view> levelNames(const ItemStore& items, Order part, std::size_t skipped, bool branches,
                                         const Wanted& wanted) {
    const Walk walk(items, part);
    std::vector<std::string_view> names;
    for (auto at = part.begin(); at != part.end();) {
        const SLIKTag& tag = items.at(*at);
        const std::string_view full = tag.Name();
        const std::string_view rest = full.substr(leftCharacters(full, skipped).size());
        const std::string_view level = rest.substr(0, firstLevel(rest));
        if (level.size() == rest.size()) {
            if (!branches && wanted.takes(tag, level)) {
                names.push_back(level);
            }
            ++at;
            continue;
        }
        if (branches && wanted.name.matches(level)) {
            names.push_back(level);
        }
        const std::string_view branch = full.substr(0, full.size() - rest.size() + level.size());
        at = walk.endOf(foldCase(branch) + '.', Order(at, part.end()));
    }
    return names;
}

std::string joined(std::string_view branch, std::string_view name) {
    std::string full(branch);
    if (!full.empty()) {
        full += '.';
    }
    return full += name;
}

// A branch's name as the items write it; nothing when there is no such branch.
std::optional<std::string> branchName(const ItemStore& items, std::string_view branch) {
    const Order below = Walk(items, items.browseOrder()).below(branch);
    if (below.empty()) {
        return std::nullopt;
    }
    return std::string(leftCharacters(items.at(below.front()).Name(), characterCount(branch)));
}

}  // namespace

HResult Browser::changePosition(std::uint16_t direction, std::string_view text) {
    switch (static_cast<BrowseDirection>(direction)) {
        case BrowseDirection::up:
            if (position_.empty()) {
                return E_FAIL;
            }
            position_ = std::string(withoutLastLevel(position_));
            return S_OK;
        case BrowseDirection::down:
            return text.empty() ? E_INVALIDARG : moveTo(joined(position_, text));
        case BrowseDirection::to:
            return moveTo(text);
    }
    return E_INVALIDARG;
}

HResult Browser::moveTo(std::string_view branch) {
    if (branch.empty()) {
        position_.clear();
        return S_OK;
    }
    std::optional<std::string> name = branchName(*items_, branch);
    if (!name) {
        return E_INVALIDARG;
    }
    position_ = std::move(*name);
    return S_OK;
}

HResult Browser::browse(std::uint16_t type, std::string_view filter, VarType dataType, std::uint32_t accessRights,
                        NameEnumerator& names) const {
    names = NameEnumerator();
    const Wanted wanted{NameFilter(filter), dataType, accessRights};
    if (!wanted.name.isValid()) {
        return OPC_E_INVALIDFILTER;
    }
    const Order part = Walk(*items_, items_->browseOrder()).below(position_);
    const std::size_t skipped = position_.empty() ? 0 : characterCount(position_) + 1;
    std::vector<std::string_view> found;
    switch (static_cast<BrowseType>(type)) {
        case BrowseType::branch:
        case BrowseType::leaf:
            found = levelNames(*items_, part, skipped, static_cast<BrowseType>(type) == BrowseType::branch, wanted);
            break;
        case BrowseType::flat:
            found = flatNames(*items_, part, wanted);
            break;
        default:
            return E_INVALIDARG;
    }
    found.shrink_to_fit();
    Hold memory = memoryOf(budget_);
    if (!memory.resize(found.size() * sizeof(std::string_view))) {
        return E_OUTOFMEMORY;
    }
    names = NameEnumerator(std::move(found), std::move(memory));
    return names.size() == 0 ? S_FALSE : S_OK;
}

HResult Browser::itemId(std::string_view name, std::string& itemId) const {
    if (name.empty()) {
        itemId = position_;
        return S_OK;
    }
    const std::string below = joined(position_, name);
    for (const std::string_view candidate : {std::string_view(below), name}) {
        if (const SLIKTag* tag = items_->find(candidate)) {
            itemId = tag->Name();
            return S_OK;
        }
    }
    std::optional<std::string> branch = branchName(*items_, below);
    if (!branch) {
        return E_INVALIDARG;
    }
    itemId = std::move(*branch);
    return S_OK;
}

HResult Browser::accessPaths(std::string_view itemId, NameEnumerator& paths) const {
    paths = NameEnumerator();
    const SLIKTag* tag = nullptr;
    return findItem(*items_, itemId, tag) == S_OK ? S_FALSE : E_INVALIDARG;
}

}  // namespace quelm::opcda
