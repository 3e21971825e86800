#include "OPC/Control/CheckDomain.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "dcom/domain/DomainSettings.h"
#include "dcom/domain/Keytab.h"
#ifdef QUELM_WINBIND
#include "dcom/winbind/Winbind.h"
#endif

namespace quelm::control {

namespace {

constexpr const char* serverUser = "quelm";
constexpr const char* winbindGroup = "winbindd_priv";

using Lines = std::vector<std::string>;

void add(Lines& lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

#ifdef QUELM_WINBIND
// The server's own user, where the package has made it: whoever runs the check may have rights that it lacks.
void lookAtRights(Lines& lines) {
    const passwd* const user = getpwnam(serverUser);
    const group* const wanted = getgrnam(winbindGroup);
    if (user == nullptr || wanted == nullptr) {
        return;
    }
    const gid_t id = wanted->gr_gid;
    std::array<gid_t, 256> groups{};
    int count = groups.size();
    if (getgrouplist(serverUser, user->pw_gid, groups.data(), &count) >= 0 &&
        std::find(groups.begin(), groups.begin() + count, id) == groups.begin() + count) {
        lines.push_back(
            fmt::format("[Security] Winbind = yes: the user {0} is not in the group {1}, so that winbind does "
                        "not let the server ask about log-ons. Run: usermod -aG {1} {0}",
                        serverUser, winbindGroup));
    }
}

void askWinbind(const dcom::DcomSettings& settings, Lines& lines) {
    std::string fault;
    const auto link = dcom::winbind::openWinbind(fault);
    if (link == nullptr) {
        lines.push_back(fmt::format("[Security] Winbind = yes: {}. Install libwbclient0 and winbind.", fault));
        return;
    }
    lookAtRights(lines);
    const dcom::DomainLook look = link->look(settings.access.namedGroups());
    dcom::AccessList access = settings.access;
    for (const auto& group : look.groups) {
        access.setGroupSid(group.name, group.sid);
    }
    add(lines, dcom::problemsOf(look, access));
}
#else
void askWinbind(const dcom::DcomSettings&, Lines& lines) {
    lines.emplace_back("[Security] Winbind = yes: this server was built without winbind");
}
#endif

}  // namespace

Lines domainProblems(const dcom::DcomSettings& settings) {
    Lines lines;
    if (!settings.keytab.empty()) {
        add(lines, dcom::keytabProblems(settings.keytab, dcom::readKeytab(settings.keytab)));
    }
    if (settings.winbind) {
        askWinbind(settings, lines);
    } else if (!settings.keytab.empty()) {
        add(lines, dcom::accessProblems(settings.access));
    }
    return lines;
}

}  // namespace quelm::control
