#include "opcda/Browser.h"

#include <optional>

#include "opcda/ItemLookup.h"
#include "opcda/NameFilter.h"
#include "opcda/NameTree.h"

namespace quelm::opcda {

namespace {

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

std::vector<std::string_view> levelNames(const ItemStore& items, std::string_view branch, bool branches,
                                         const Wanted& wanted) {
    std::vector<std::string_view> names;
    LevelWalk walk(items, branch);
    for (LevelWalk::Entry entry; walk.next(entry);) {
        const bool isBranch = entry.tag == nullptr;
        if (branches == isBranch &&
            (isBranch ? wanted.name.matches(entry.name) : wanted.takes(*entry.tag, entry.name))) {
            names.push_back(entry.name);
        }
    }
    return names;
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
    std::vector<std::string_view> found;
    switch (static_cast<BrowseType>(type)) {
        case BrowseType::branch:
        case BrowseType::leaf:
            found = levelNames(*items_, position_, static_cast<BrowseType>(type) == BrowseType::branch, wanted);
            break;
        case BrowseType::flat:
            found = flatNames(*items_, namesBelow(*items_, position_), wanted);
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
