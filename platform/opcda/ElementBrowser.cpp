#include "opcda/ElementBrowser.h"

#include <fmt/format.h>

#include <charconv>
#include <random>

#include "base/Text.h"
#include "opcda/ItemLookup.h"
#include "opcda/NameFilter.h"
#include "opcda/NameTree.h"

namespace quelm::opcda {

namespace {

constexpr std::size_t placeDigits = 8;

std::uint64_t randomNumber() {
    std::random_device device;
    return std::uint64_t{device()} << 32U | device();
}

bool isWanted(const BrowseElement& element, ElementFilter filter) {
    switch (filter) {
        case ElementFilter::branches:
            return element.hasChildren;
        case ElementFilter::items:
            return element.tag != nullptr;
        default:
            return true;
    }
}

// The next element of the level; one that is branch and item both stands where the item does.
bool nextElement(const ItemStore& items, LevelWalk& walk, BrowseElement& element) {
    LevelWalk::Entry entry{};
    do {
        if (!walk.next(entry)) {
            return false;
        }
    } while (entry.tag == nullptr && items.find(entry.fullName) != nullptr);
    element = {entry.name, entry.fullName, entry.tag, entry.tag == nullptr || walk.hasBranchOf(entry)};
    return true;
}

HResult checkFilters(const ElementRequest& request, const NameFilter& names) {
    if (request.filter < static_cast<std::uint16_t>(ElementFilter::all) ||
        request.filter > static_cast<std::uint16_t>(ElementFilter::items)) {
        return E_INVALIDARG;
    }
    return names.isValid() && request.vendorFilter.empty() ? S_OK : OPC_E_INVALIDFILTER;
}

}  // namespace

ElementBrowser::ElementBrowser(const ItemStore& items) : items_(&items), itsOwn_(randomNumber()) {}

HResult ElementBrowser::browse(const ElementRequest& request, const Take& take, std::string& next) const {
    next.clear();
    const NameFilter names(request.nameFilter);
    if (const HResult error = checkFilters(request, names); error != S_OK) {
        return error;
    }
    std::size_t start = 0;
    if (!request.continuationPoint.empty() && !readPoint(request, start)) {
        return OPC_E_INVALIDCONTINUATIONPOINT;
    }
    LevelWalk walk(*items_, request.itemId, start);
    const SLIKTag* tag = nullptr;
    if (walk.places() == 0 && !request.itemId.empty()) {
        return findItem(*items_, request.itemId, tag);
    }
    std::uint32_t taken = 0;
    for (BrowseElement element; nextElement(*items_, walk, element);) {
        if (!isWanted(element, static_cast<ElementFilter>(request.filter)) || !names.matches(element.name)) {
            continue;
        }
        if ((taken == request.most && taken != 0) || !take(element)) {
            next = taken == 0 ? "" : pointAt(request, walk.place());
            return taken == 0 ? E_OUTOFMEMORY : S_OK;
        }
        ++taken;
    }
    return S_OK;
}

// The place, and what it is good for: all that decides which elements there are, and which object said so.
std::string ElementBrowser::pointAt(const ElementRequest& request, std::size_t place) const {
    const std::string meant = fmt::format("{} {} {} {}\n{}", itsOwn_, place, request.filter, foldCase(request.itemId),
                                          foldCase(request.nameFilter));
    return fmt::format("{:0{}x}{:016x}", place, placeDigits, std::hash<std::string>()(meant));
}

bool ElementBrowser::readPoint(const ElementRequest& request, std::size_t& place) const {
    const std::string_view point = request.continuationPoint;
    if (point.size() != pointLength) {
        return false;
    }
    std::from_chars(point.data(), point.data() + placeDigits, place, 16);
    return point == pointAt(request, place);
}

}  // namespace quelm::opcda
