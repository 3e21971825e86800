#include "DB Interface Library/SiteTable.h"

#include <fmt/format.h>

#include "Shared Types/RuntimeError.h"

namespace quelm {

void SiteTable::setUp(std::string_view strSiteID,
                      const std::array<std::string_view, connectionCount>& connectionStrings) {
    Site site;
    for (std::size_t i = 0; i < connectionCount; ++i) {
        site[i].text = connectionStrings[i];
    }
    site[configuration].open = connectionTo(site[configuration].text);
    site[realtime].open = connectionTo(site[realtime].text);
    sites_.insert_or_assign(std::string(strSiteID), std::move(site));
}

ISqlConnection& SiteTable::connection(std::string_view strSiteID, std::size_t which) {
    Connection& connection = site(strSiteID)[which];
    if (!connection.open) {
        connection.open = connectionTo(connection.text);
    }
    return *connection.open;
}

std::string SiteTable::shownConnectionString(std::string_view strSiteID, std::size_t which) {
    return redactConnectionString(site(strSiteID)[which].text);
}

void SiteTable::forEachSite(const std::function<void(const std::string&)>& visit) const {
    for (const auto& [siteID, site] : sites_) {
        visit(siteID);
    }
}

void SiteTable::closeAll() {
    for (auto& [siteID, site] : sites_) {
        for (Connection& connection : site) {
            if (connection.open) {
                connection.open->close();
            }
        }
    }
}

std::shared_ptr<ISqlConnection> SiteTable::connectionTo(const std::string& text) {
    std::weak_ptr<ISqlConnection>& known = connections_[text];
    std::shared_ptr<ISqlConnection> connection = known.lock();
    if (!connection) {
        connection = drivers_.connection(text);
        known = connection;
    }
    return connection;
}

SiteTable::Site& SiteTable::site(std::string_view strSiteID) {
    const auto found = sites_.find(strSiteID);
    if (found == sites_.end()) {
        throw RuntimeError(errors::invalidCall, fmt::format("Site '{}' is not set up", strSiteID));
    }
    return found->second;
}

}  // namespace quelm
