#pragma once

// The hierarchy that the names of the items make, level by level parted by ".". No tree is built: the items below a
// branch stand together in the control's browse order.
// A "." parts two levels only between two characters of which the second is no "." itself, so that no level is
// without a name: "a..b" is "b" below "a.", ".x" is a leaf at the top.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "slikda/ItemStore.h"

namespace quelm::opcda {

// Items one behind the other in the control's browse order.
using Order = std::span<const std::uint32_t>;

// Length of the first level's name; the whole text when it is the last.
std::size_t firstLevel(std::string_view text);
// "" for a text of one level.
std::string_view withoutLastLevel(std::string_view text);
// The full name of what is called so below a branch ("": the top).
std::string joined(std::string_view branch, std::string_view name);

// All items below a branch, which is named in full and without regard to case; "": all that there are. Empty when there
// is no such branch.
Order namesBelow(const ItemStore& items, std::string_view branch);
// A branch's full name as the items write it; nothing when there is no such branch.
std::optional<std::string> branchName(const ItemStore& items, std::string_view branch);

// The leaves and branches of one level, in the browse order.
class LevelWalk {
 public:
    struct Entry {
        std::string_view name;  // of this level alone, as an item writes it
        std::string_view fullName;
        const SLIKTag* tag;  // nullptr: a branch. One that is an item too comes twice, first as the item
    };

    // branch: full name, "" for the top. start: where to begin, a place() of an earlier walk over the same level.
    LevelWalk(const ItemStore& items, std::string_view branch, std::size_t start = 0);

    // False at the end.
    bool next(Entry& entry);
    // Of the latest entry; 0 to places() - 1.
    std::size_t place() const { return place_; }
    std::size_t places() const { return part_.size(); }
    // The item's name is that of a branch too. entry: the latest one, an item.
    bool hasBranchOf(const Entry& entry) const;

 private:
    const ItemStore* items_;
    Order part_;
    std::size_t skipped_;  // characters of the names that stand before this level
    std::size_t place_ = 0;
    std::size_t next_;
};

}  // namespace quelm::opcda
