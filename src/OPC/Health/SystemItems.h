#pragma once

// Items about the server itself, below a branch of their own beside the plant's, for operators whose displays are OPC
// clients: who is connected, passes, databases, qualities. They are set with each update pass, on the plant's thread.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "OPC/Health/PlantHealth.h"
#include "slikda/PlantItems.h"

namespace quelm::health {

class SystemItems {
 public:
    // Adds them behind all of the plant's items, before clients are let in; both outlive it. problem: one line for each
    // item whose name the plant has already; that one is then left out.
    SystemItems(PlantItems& items, const PlantHealth& health, const std::string& branch,
                const std::function<void(std::string_view)>& problem);
    SystemItems(const SystemItems&) = delete;
    SystemItems& operator=(const SystemItems&) = delete;

    // The site's part of a pass is done. clients: how many hold the server.
    void update(const std::string& siteID, std::int32_t clients);

 private:
    struct Site {
        ISLIKTag* databaseUp = nullptr;
        ISLIKTag* snapshotTime = nullptr;
        ISLIKTag* snapshotMilliseconds = nullptr;
        std::array<ISLIKTag*, 3> counts{};   // good, uncertain, bad
        std::vector<std::uint32_t> numbers;  // of its items
    };

    void updateSite(Site& site, const SiteHealth& health, Date now);

    PlantItems& items_;
    const PlantHealth& health_;
    ISLIKTag* clients_ = nullptr;
    ISLIKTag* passTime_ = nullptr;
    ISLIKTag* passMilliseconds_ = nullptr;
    std::map<std::string, Site> sites_;
};

}  // namespace quelm::health
