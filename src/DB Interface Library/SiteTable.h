#pragma once

// The sites that are set up, each with its five connections; shared by the parts of the database library.

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "DB Interface Library/sql/Sql.h"
#include "DB Interface Library/sql/SqlWorker.h"

namespace quelm {

class SiteTable {
 public:
    static constexpr std::size_t connectionCount = 5;
    static constexpr std::size_t configuration = 0;
    static constexpr std::size_t realtime = 1;

    // News of a database: its connection string without passwords, and why it does not answer; nothing: it answers
    // again.
    using News = std::function<void(const std::string& strConnection, const std::optional<ErrorInfo>& loss)>;

    SiteTable(SqlDrivers drivers, News news) : drivers_(std::move(drivers)), news_(std::move(news)) {}

    // Raises what the drivers raise when the first two connection strings are not usable; the site is then as before.
    void setUp(std::string_view strSiteID, const std::array<std::string_view, connectionCount>& connectionStrings);
    // Raises RuntimeError 5 for a site that is not set up, and what the drivers raise.
    const std::shared_ptr<SqlWorker>& connection(std::string_view strSiteID, std::size_t which);
    // Without passwords.
    std::string shownConnectionString(std::string_view strSiteID, std::size_t which);
    // In the order of the site IDs.
    void forEachSite(const std::function<void(const std::string& strSiteID)>& visit) const;
    // Waits for all of them together.
    void closeAll();

 private:
    struct Connection {
        std::string text;
        std::shared_ptr<SqlWorker> open;
    };
    using Site = std::array<Connection, connectionCount>;

    Site& site(std::string_view strSiteID);
    std::shared_ptr<SqlWorker> connectionTo(const std::string& text);

    SqlDrivers drivers_;
    News news_;
    // Sites of one database share its connection and its worker: each more is a session of the database's, and a wait
    // of its own when the database is gone.
    std::map<std::string, std::weak_ptr<SqlWorker>> connections_;
    std::map<std::string, Site, std::less<>> sites_;
};

}  // namespace quelm
