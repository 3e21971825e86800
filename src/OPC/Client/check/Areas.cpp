#include <array>

#include "OPC/Client/check/Case.h"

namespace quelm::opcclient::check {

std::span<const Area> areas() {
    static const std::array all{
        Area{1, "Discovery", discoveryCases()},
        Area{2, "Status and errors", statusCases()},
        Area{3, "Locales", localeCases()},
        Area{4, "Groups", groupCases()},
        Area{4, "Names and lists of groups", groupNameCases()},
        Area{5, "Items", itemCases()},
        Area{6, "Item attributes", attributeCases()},
        Area{7, "Synchronous read and write", syncCases()},
        Area{8, "Asynchronous read, write, refresh, cancel", asyncCases()},
        Area{9, "Subscription", subscriptionCases()},
        Area{9, "What a subscription sends", changeCases()},
        Area{10, "Shutdown", shutdownCases()},
        Area{11, "Browsing 2.0", browse2Cases()},
        Area{12, "Browsing 3.0", browse3Cases()},
        Area{13, "Properties", propertyCases()},
        Area{14, "Maximum age and keep-alive", ageCases()},
        Area{15, "Limits and bad parameters", limitCases()},
        Area{16, "References and lifetime", lifetimeCases()},
        Area{16, "Clients that die", deathCases()},
    };
    return all;
}

}  // namespace quelm::opcclient::check
