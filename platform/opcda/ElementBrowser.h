#pragma once

// A client's look at one level of the item names at a time, in portions of its own size, without a position that would
// be kept for it: what it needs to go on stands in the continuation point that it gets and gives back.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "opcda/HResults.h"
#include "slikda/ItemStore.h"

namespace quelm::opcda {

// Numbers of the interface's enumeration.
enum class ElementFilter : std::uint16_t { all = 1, branches = 2, items = 3 };

struct BrowseElement {
    std::string_view name;  // on its level
    std::string_view itemId;
    const SLIKTag* tag = nullptr;  // nullptr: a branch that is no item
    bool hasChildren = false;
};

struct ElementRequest {
    std::string_view itemId;             // whose children are wanted, without regard to case; "": those of the top
    std::string_view continuationPoint;  // "": from the beginning
    std::uint32_t most = 0;              // elements; 0: as many as there are
    std::uint16_t filter = 0;
    std::string_view nameFilter;    // a pattern (see NameFilter) for the names on the level; "": all
    std::string_view vendorFilter;  // there is none that this server knows
};

class ElementBrowser {
 public:
    // Characters of every continuation point.
    static constexpr std::size_t pointLength = 24;

    explicit ElementBrowser(const ItemStore& items);

    // Whether there was room for an element.
    using Take = std::function<bool(const BrowseElement& element)>;

    // Calls take for the elements that are wanted, in the browse order, until the request's limit or take's false. An
    // element that is branch and item both comes once. next: the point at which the rest begins; "": there is none.
    // S_OK, also for nothing found; OPC_E_UNKNOWNITEMID and OPC_E_INVALIDITEMID for what is neither branch nor item;
    // E_INVALIDARG for an unknown filter; OPC_E_INVALIDFILTER for a name filter that is no pattern and for any vendor
    // filter; OPC_E_INVALIDCONTINUATIONPOINT for a point that this object did not give for the same element and the
    // same filters; E_OUTOFMEMORY when there was no room for the first one. A level of 200,000 takes at most 40 ms.
    HResult browse(const ElementRequest& request, const Take& take, std::string& next) const;

 private:
    std::string pointAt(const ElementRequest& request, std::size_t place) const;
    bool readPoint(const ElementRequest& request, std::size_t& place) const;

    const ItemStore* items_;
    std::uint64_t itsOwn_;  // what tells this object's points from all others
};

}  // namespace quelm::opcda
