#pragma once

// Which site each item belongs to: what the plant says of it as a property, or, where it says nothing, what the first
// part of its name is. Made once, in turns, as items never change.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "slikda/ItemStore.h"

namespace quelm::health {

class ItemSites {
 public:
    explicit ItemSites(const ItemStore& items) : items_(items) {}
    // A part of the work; true: all is done.
    bool goOn();
    // Place of the item's site among names().
    std::size_t of(std::size_t item) const { return sites_[item]; }
    const std::vector<std::string>& names() const { return names_; }

 private:
    std::string nameOf(const SLIKTag& tag) const;

    const ItemStore& items_;
    std::vector<std::uint32_t> sites_;  // by item
    std::vector<std::string> names_;
    std::map<std::string, std::uint32_t> places_;
};

}  // namespace quelm::health
