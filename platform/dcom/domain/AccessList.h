#pragma once

// Which accounts of the domain may come in: users and members of groups. Nobody, unless somebody is named.

#include <string>
#include <string_view>
#include <vector>

#include "dcom/domain/Person.h"

namespace quelm::dcom {

class AccessList {
 public:
    // "DOMAIN\\user" (short or DNS name of the domain), "user@dns.name" or a user's SID. False when it is none of them.
    bool addUser(std::string_view text);
    // "DOMAIN\\group", "group@dns.name" or the group's SID. False when it is none of them.
    bool addGroup(std::string_view text);

    bool empty() const { return users_.empty() && groups_.empty(); }
    bool admits(const Person& person) const;
    // All that are named, as they were written, with commas between them.
    std::string shown() const;

    // Groups that are named and whose SID is not known: nobody comes in by them yet.
    std::vector<std::string> unknownGroups() const;
    // All groups that are named and not given by a SID.
    std::vector<std::string> namedGroups() const;
    // A group of that name has this SID.
    void setGroupSid(std::string_view name, std::string_view sid);
    // Takes over what another list knows of groups of the same names.
    void rememberSids(const AccessList& earlier);

 private:
    struct Entry {
        std::string written;
        std::string domain;  // folded, like the name; empty for a SID
        std::string name;
        std::string sid;
    };
    static bool parse(std::string_view text, Entry& entry);

    std::vector<Entry> users_;
    std::vector<Entry> groups_;
};

}  // namespace quelm::dcom
