#include "dcom/domain/AccessList.h"

#include <algorithm>

#include "base/Text.h"

namespace quelm::dcom {

namespace {

bool isSid(std::string_view text) {
    constexpr std::string_view start = "S-1-";
    return equalsIgnoringCase(text.substr(0, start.size()), start) && isDigit(text.back()) &&
           std::all_of(text.begin() + start.size(), text.end(), [](char c) { return isDigit(c) || c == '-'; });
}

bool isName(std::string_view name) {
    constexpr std::size_t longest = 256;
    return !name.empty() && characterCount(name) <= longest &&
           name.find_first_of("\"/\\[]:;|=,+*?<>@") == std::string_view::npos;
}

bool holds(const std::vector<std::string>& sids, const std::string& sid) {
    return !sid.empty() && std::find(sids.begin(), sids.end(), sid) != sids.end();
}

}  // namespace

bool AccessList::parse(std::string_view text, Entry& entry) {
    entry.written = text;
    if (isSid(text)) {
        entry.sid = toUpperCase(text);
        return true;
    }
    const std::size_t backslash = text.find('\\');
    const std::size_t at = text.find('@');
    if ((backslash == std::string_view::npos) == (at == std::string_view::npos)) {
        return false;
    }
    const bool behind = backslash == std::string_view::npos;
    const std::size_t sign = behind ? at : backslash;
    const std::string_view front = trimBlanks(text.substr(0, sign));
    const std::string_view back = trimBlanks(text.substr(sign + 1));
    entry.domain = foldCase(behind ? back : front);
    entry.name = foldCase(behind ? front : back);
    return isName(front) && isName(back);
}

bool AccessList::addUser(std::string_view text) {
    Entry entry;
    const bool good = parse(text, entry);
    if (good) {
        users_.push_back(std::move(entry));
    }
    return good;
}

bool AccessList::addGroup(std::string_view text) {
    Entry entry;
    const bool good = parse(text, entry);
    if (good) {
        groups_.push_back(std::move(entry));
    }
    return good;
}

bool AccessList::admits(const Person& person) const {
    const std::string domain = foldCase(person.domain);
    const std::string realm = foldCase(person.realm);
    const std::string user = foldCase(person.user);
    const auto isHe = [&](const Entry& entry) {
        const bool isHisDomain = entry.domain == domain || (!realm.empty() && entry.domain == realm);
        return entry.name.empty() ? holds(person.sids, entry.sid) : isHisDomain && entry.name == user;
    };
    return std::any_of(users_.begin(), users_.end(), isHe) ||
           std::any_of(groups_.begin(), groups_.end(),
                       [&](const Entry& entry) { return holds(person.sids, entry.sid); });
}

std::string AccessList::shown() const {
    std::string text;
    for (const auto* entries : {&users_, &groups_}) {
        for (const Entry& entry : *entries) {
            text += (text.empty() ? "" : ", ") + entry.written;
        }
    }
    return text;
}

std::vector<std::string> AccessList::unknownGroups() const {
    std::vector<std::string> names;
    for (const Entry& entry : groups_) {
        if (entry.sid.empty()) {
            names.push_back(entry.written);
        }
    }
    return names;
}

std::vector<std::string> AccessList::namedGroups() const {
    std::vector<std::string> names;
    for (const Entry& entry : groups_) {
        if (!entry.name.empty()) {
            names.push_back(entry.written);
        }
    }
    return names;
}

void AccessList::rememberSids(const AccessList& earlier) {
    for (const Entry& entry : earlier.groups_) {
        if (!entry.sid.empty()) {
            setGroupSid(entry.written, entry.sid);
        }
    }
}

void AccessList::setGroupSid(std::string_view name, std::string_view sid) {
    for (Entry& entry : groups_) {
        if (!entry.name.empty() && entry.written == name) {
            entry.sid = sid;
        }
    }
}

}  // namespace quelm::dcom
