#pragma once

// Who logged on with an account of the domain, as the domain itself says it: the same whichever way he came.

#include <string>
#include <vector>

namespace quelm::dcom {

struct Person {
    std::string domain;             // its short (NetBIOS) name; the realm where no other is known
    std::string user;               // the account's name in it
    std::string realm;              // the domain's DNS name; may be empty
    std::vector<std::string> sids;  // "S-1-5-21-...": his own and those of all his groups, nested ones included

    // "DOMAIN\\user"; control and format characters show as "?".
    std::string account() const;
};

}  // namespace quelm::dcom
