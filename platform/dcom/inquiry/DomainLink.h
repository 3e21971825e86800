#pragma once

// The way to the domain, as whatever library knows it: each call may wait for as long as the library likes, and is a
// worker's. Nothing is raised; what goes wrong is in the answer.

#include <string>
#include <vector>

#include "dcom/domain/AccessList.h"
#include "dcom/domain/PassThrough.h"

namespace quelm::dcom {

// What there is to know before anybody can log on.
struct DomainLook {
    struct Group {
        std::string name;  // as the settings have it
        std::string sid;
    };
    // Why the domain cannot be asked, and what to do about it; empty when it can.
    std::string fault = {};
    // This machine, as the domain knows it; empty as long as that is not known. Clients answer to the first two, and
    // the domain takes an answer to no others.
    std::string computerName = {};
    std::string domainName = {};
    std::string dnsDomainName = {};
    // Those that were found. The others are not there, or were not to be had while there is a fault.
    std::vector<Group> groups = {};
};

class DomainLink {
 public:
    virtual ~DomainLink() = default;
    virtual NtlmAnswer logOn(const NtlmQuestion& question) noexcept = 0;
    // groups: "DOMAIN\\group" or "group@dns.name".
    virtual DomainLook look(const std::vector<std::string>& groups) noexcept = 0;
};

// One line each for what keeps accounts out, with what to do. access: as it is after the look.
std::vector<std::string> problemsOf(const DomainLook& look, const AccessList& access);

}  // namespace quelm::dcom
