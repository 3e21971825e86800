#include "dcom/ntlm/AccountTable.h"

#include "base/Text.h"

namespace quelm::dcom::ntlm {

void AccountTable::add(std::string_view domain, std::string_view user, const NtHash& hash) {
    users_[foldCase(user)][foldCase(domain)] = hash;
}

std::optional<NtHash> AccountTable::find(std::string_view domain, std::string_view user) const {
    const auto domains = users_.find(foldCase(user));
    if (domains == users_.end()) {
        return std::nullopt;
    }
    for (const std::string& wanted : {foldCase(domain), std::string(anyDomain)}) {
        if (const auto found = domains->second.find(wanted); found != domains->second.end()) {
            return found->second;
        }
    }
    return std::nullopt;
}

bool AccountTable::knowsUser(std::string_view user) const {
    return users_.find(foldCase(user)) != users_.end();
}

}  // namespace quelm::dcom::ntlm
