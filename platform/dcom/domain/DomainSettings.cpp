#include "dcom/domain/DomainSettings.h"

#include <fmt/format.h>

#include <algorithm>

namespace quelm::dcom {

std::vector<std::string> keytabProblems(const std::string& path, const Keytab& keytab) {
    const auto isOld = [](const Keytab::Entry& entry) { return isOldEncryption(entry.encryption); };
    const std::string place = fmt::format("[Security] Keytab = {}", path);
    if (!keytab.fault.empty()) {
        return {
            fmt::format("{}: it cannot be used ({}): every log-on by Kerberos is refused. Correct the file and its "
                        "rights.",
                        place, keytab.fault)};
    }
    if (keytab.hostPrincipal().empty()) {
        return {
            fmt::format("{}: it has no entry host/ and this machine's full name, which clients ask tickets for. Make "
                        "it anew with one.",
                        place)};
    }
    if (std::ranges::all_of(keytab.entries, isOld)) {
        return {
            fmt::format("{}: it has keys for RC4 or DES only, which are not taken. Let the domain give AES keys to the "
                        "account and make the keytab anew.",
                        place)};
    }
    return {};
}

std::vector<std::string> accessProblems(const AccessList& access) {
    std::vector<std::string> problems;
    for (const std::string& group : access.unknownGroups()) {
        problems.push_back(
            fmt::format("[Access] Groups: the SID of \"{}\" is not known here, nobody comes in by this "
                        "group. Write its SID instead, which \"wbinfo -n\" or \"Get-ADGroup\" shows, or set [Security] "
                        "Winbind = yes.",
                        group));
    }
    return problems;
}

}  // namespace quelm::dcom
