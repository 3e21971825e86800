#pragma once

// The database interface library: the sites, their connections, and the readers that work over them.

#include "DB Interface Library/ConfigurationReader.h"
#include "DB Interface Library/IDBIL.h"
#include "DB Interface Library/ProblemSink.h"
#include "DB Interface Library/RealtimeDB.h"
#include "DB Interface Library/SiteTable.h"

namespace quelm {

class DBIL final : public IDBIL {
 public:
    // news: of databases that do not answer, and answer again.
    DBIL(SqlDrivers drivers, ProblemSink problems, SiteTable::News news = {})
        : problems_(std::move(problems)),
          sites_(std::move(drivers), std::move(news)),
          configurationReader_(sites_, problems_),
          realtimeDB_(sites_) {}

    bool Initialize(std::string_view strExecutableName) override;
    bool SetupSite(std::string_view strSiteID, std::string_view strConnection1, std::string_view strConnection2,
                   std::string_view strConnection3, std::string_view strConnection4, std::string_view strConnection5,
                   bool blnUse, bool blnReserved) override;
    // A connection passes when the database answers a trivial query. Tables are not looked for: the start-up waits
    // for this test, and a table that is missing fails with its own message where it is read.
    bool TestConnections(std::string_view strSiteID, bool blnConnection1, bool blnConnection2, bool blnConnection3,
                         bool blnConnection4, bool blnConnection5, bool blnReport) override;
    IConfigurationReader& ConfigurationReader() override { return configurationReader_; }
    IRealtimeDB& RealtimeDB() override { return realtimeDB_; }
    // A later call of a reader connects again.
    void Terminate() override;

 private:
    struct ConnectionTest {
        std::string siteID;
        std::size_t which = 0;
        std::shared_ptr<SqlWorker> worker;
        std::optional<SqlCall<bool>> call;
        std::optional<ErrorInfo> failure;
    };

    void begin(ConnectionTest& test);
    bool finish(ConnectionTest& test, bool blnReport);
    void report(std::string_view strProblem) const;

    ProblemSink problems_;
    SiteTable sites_;
    quelm::ConfigurationReader configurationReader_;
    quelm::RealtimeDB realtimeDB_;
};

}  // namespace quelm
