#pragma once

// The sites' realtime databases: the I/O servers' current values, command message records, parameter values. Every read
// is done as a whole by its connection's worker, and only what comes of it crosses over.

#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "DB Interface Library/IDBIL.h"
#include "DB Interface Library/MessageIDs.h"
#include "DB Interface Library/SiteTable.h"
#include "DB Interface Library/TickReads.h"

namespace quelm {

class RealtimeDB final : public IRealtimeDB {
 public:
    // sites must outlive this object.
    explicit RealtimeDB(SiteTable& sites);

    // The flag goes to the database's procedure. Implicit channels' records stand in the same table as all others, so
    // that it changes nothing in the schemas that are shipped.
    std::shared_ptr<const CurrentIOCollection> ReadCurrentIO(std::string_view strSiteID,
                                                             bool blnUseImplicitChannels) override;
    std::optional<MessageRecord> GetMessageRecord(std::string_view strSiteID, std::string_view strMsgID) override;
    bool InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                       std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                       std::string_view strDescription) override;
    void ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) override;
    // The site is set up: its values will be read at the same ticks as the others'.
    void expect(std::string_view strSiteID);
    // Lets go of the snapshots' memory, and of what was begun ahead.
    void releaseSnapshots();

 private:
    using Snapshot = std::shared_ptr<CurrentIOCollection>;

    SqlCall<Snapshot> beginCurrentIO(SqlWorker& worker, const std::string& strSiteID, bool blnUseImplicitChannels);

    SiteTable& sites_;
    std::map<std::string, CurrentIOSnapshots, std::less<>> snapshots_;
    MessageIDs messageIDs_;
    TickTime time_;
    TickReads<Snapshot, bool> currentIO_;
    TickReads<std::vector<ParameterValue>, std::monostate> parameters_;
    TickReads<std::optional<MessageRecord>, std::string> messages_;
};

}  // namespace quelm
