#pragma once

// The accounts of the settings file, held in memory. A client types domain and user as it likes, in any case:
// an account that is bound to a domain answers to that one only, one that is bound to none answers to any.

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "dcom/ntlm/ServerContext.h"

namespace quelm::dcom::ntlm {

class AccountTable : public AccountStore {
 public:
    // The domain that stands for every domain.
    static constexpr std::string_view anyDomain = "*";

    // A later account of the same domain and user takes the place of the earlier one.
    void add(std::string_view domain, std::string_view user, const NtHash& hash);
    bool empty() const { return users_.empty(); }

    // The account of the very domain goes before one that answers to any.
    std::optional<NtHash> find(std::string_view domain, std::string_view user) const override;
    bool knowsUser(std::string_view user) const override;

 private:
    using Domains = std::map<std::string, NtHash, std::less<>>;
    std::map<std::string, Domains, std::less<>> users_;  // by folded user, then folded domain
};

}  // namespace quelm::dcom::ntlm
