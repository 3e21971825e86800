#pragma once

// What the window keeps per site, keyed by site ID. Site IDs compare exactly (two that differ in letter case are two
// sites), and sites are visited in the order in which they were added. There are a handful of sites at most.

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/RuntimeError.h"

namespace quelm {

template <class T>
class SiteDictionary {
 public:
    // Raises RuntimeError 457 for a site ID that is there already.
    void Add(std::string_view strSiteID, T item) {
        if (Find(strSiteID) != nullptr) {
            throw RuntimeError(errors::duplicateKey);
        }
        sites_.emplace_back(std::string(strSiteID), std::move(item));
    }

    // nullptr when there is no such site.
    const T* Find(std::string_view strSiteID) const {
        const auto found = std::find_if(sites_.begin(), sites_.end(),
                                        [strSiteID](const auto& site) { return site.first == strSiteID; });
        return found == sites_.end() ? nullptr : &found->second;
    }

    std::size_t Count() const { return sites_.size(); }
    auto begin() const { return sites_.begin(); }
    auto end() const { return sites_.end(); }
    auto begin() { return sites_.begin(); }
    auto end() { return sites_.end(); }

 private:
    std::vector<std::pair<std::string, T>> sites_;
};

}  // namespace quelm
