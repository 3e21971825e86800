#include "DB Interface Library/SiteTable.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

#include "base/RuntimeError.h"

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

const std::shared_ptr<SqlWorker>& SiteTable::connection(std::string_view strSiteID, std::size_t which) {
    Connection& connection = site(strSiteID)[which];
    if (!connection.open) {
        connection.open = connectionTo(connection.text);
    }
    return connection.open;
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
    std::vector<std::pair<std::shared_ptr<SqlWorker>, SqlCall<bool>>> closing;
    for (const auto& [text, known] : connections_) {
        if (const std::shared_ptr<SqlWorker> worker = known.lock()) {
            closing.emplace_back(worker, worker->beginClose());
        }
    }
    for (const auto& [worker, call] : closing) {
        // Where the library hangs the session closes when it returns; nobody can do more about it.
        worker->wait(call);
    }
}

std::shared_ptr<SqlWorker> SiteTable::connectionTo(const std::string& text) {
    std::weak_ptr<SqlWorker>& known = connections_[text];
    std::shared_ptr<SqlWorker> connection = known.lock();
    if (!connection) {
        SqlWorker::News news;
        if (news_) {
            news = [tell = news_, shown = redactConnectionString(text)](const auto& loss) { tell(shown, loss); };
        }
        connection = std::make_shared<SqlWorker>(drivers_.connection(text), std::move(news));
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
