#include "dcom/inquiry/DomainLink.h"

#include <fmt/format.h>

namespace quelm::dcom {

std::vector<std::string> problemsOf(const DomainLook& look, const AccessList& access) {
    std::vector<std::string> problems;
    if (!look.fault.empty()) {
        problems.push_back(fmt::format("[Security] Winbind = yes: {}", look.fault));
    }
    for (const std::string& group : access.unknownGroups()) {
        problems.push_back(
            fmt::format("[Access] Groups: \"{}\" {}, nobody comes in by this group{}", group,
                        look.fault.empty() ? "is no group of the domain's" : "is not known yet",
                        look.fault.empty() ? ". Correct its name; \"wbinfo -g\" lists the groups." : ""));
    }
    return problems;
}

}  // namespace quelm::dcom
