#include "DB Interface Library/RealtimeDB.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "DB Interface Library/DBRealtimeConstants.h"
#include "Shared Types/Date.h"
#include "Shared Types/TimeSource.h"

namespace quelm {

namespace {

// False when the row names no parameter and takes no place in the list.
bool readParameter(const ISqlRows& rows, ParameterValue& parameter) {
    std::array<SqlValue, 5> columns;
    rows.read(columns);
    const auto& [pid, intervalType, value, monitorCode, valueText] = columns;
    const std::optional<std::int32_t> number = sqlWholeNumber(pid);
    if (!number) {
        return false;
    }
    parameter.PID = *number;
    parameter.IntervalType.assign(sqlText(intervalType));
    parameter.Value = sqlVariant(value.type == SqlType::Null ? valueText : value);
    parameter.MonitorCode = sqlVariant(monitorCode);
    return true;
}

const std::string snapshotColumns = fmt::format("{}, {}, {}, {}", realtime::ioIDColumn, realtime::timeStampColumn,
                                                realtime::nValueColumn, realtime::xValueColumn);
const std::string snapshotSource = fmt::format("{} WHERE {} = ?", realtime::currentIOTable, realtime::siteIDColumn);

// A parameter's value is a number or a text; where columns are typed, its text stands in a column of its own.
std::string parameterQuery(bool hasTypedColumns) {
    return fmt::format(
        "SELECT PID, IntervalType, Value, MonitorCode, {} FROM ParameterValue WHERE SiteID = ? "
        "ORDER BY PID, IntervalType",
        hasTypedColumns ? "ValueText" : "NULL");
}

std::vector<ParameterValue> readParameters(ISqlConnection& connection, const std::string& strSiteID) {
    static const std::array queries = {parameterQuery(false), parameterQuery(true)};
    const auto rows = connection.query(queries[connection.hasTypedColumns() ? 1 : 0], {strSiteID});
    std::vector<ParameterValue> values;
    ParameterValue value;
    while (rows->next()) {
        if (readParameter(*rows, value)) {
            values.push_back(std::move(value));
        }
    }
    return values;
}

std::optional<MessageRecord> readMessage(ISqlConnection& connection, const std::string& strSiteID,
                                         const std::string& strMsgID) {
    const auto rows =
        connection.query("SELECT State, Response, Data FROM Message WHERE SiteID = ? AND ID = ?", {strSiteID, strMsgID});
    if (!rows->next()) {
        return std::nullopt;
    }
    std::array<SqlValue, 3> columns;
    rows->read(columns);
    const auto& [state, response, data] = columns;
    return MessageRecord{std::string(sqlText(state)), std::string(sqlText(response)), std::string(sqlText(data))};
}

}  // namespace

RealtimeDB::RealtimeDB(SiteTable& sites)
    : sites_(sites),
      currentIO_(
          time_, [this](const std::string& id) { return sites_.connection(id, SiteTable::realtime); },
          [this](SqlWorker& worker, const std::string& id, bool implicit) {
              return beginCurrentIO(worker, id, implicit);
          }),
      parameters_(
          time_, [this](const std::string& id) { return sites_.connection(id, SiteTable::realtime); },
          [](SqlWorker& worker, const std::string& id, std::monostate) {
              return worker.begin([id](ISqlConnection& connection) { return readParameters(connection, id); });
          }),
      messages_(
          time_, [this](const std::string& id) { return sites_.connection(id, SiteTable::realtime); },
          [](SqlWorker& worker, const std::string& id, const std::string& message) {
              return worker.begin(
                  [id, message](ISqlConnection& connection) { return readMessage(connection, id, message); });
          }) {}

std::shared_ptr<const CurrentIOCollection> RealtimeDB::ReadCurrentIO(std::string_view strSiteID,
                                                                     bool blnUseImplicitChannels) {
    Snapshot snapshot = currentIO_.read(strSiteID, blnUseImplicitChannels);
    return snapshots_.find(strSiteID)->second.take(std::move(snapshot));
}

SqlCall<RealtimeDB::Snapshot> RealtimeDB::beginCurrentIO(SqlWorker& worker, const std::string& strSiteID,
                                                         bool blnUseImplicitChannels) {
    // A call that is refused must not take the memory for the next snapshot along.
    if (auto refusal = worker.refusal()) {
        return {.refusal = std::move(refusal)};
    }
    const std::int64_t implicit = blnUseImplicitChannels ? 1 : 0;
    return worker.begin([read = snapshots_[strSiteID].begin(), strSiteID, implicit](ISqlConnection& connection) mutable {
        return read.fill([&](ISqlRowSink& sink) {
            if (!connection.call(snapshotColumns, realtime::currentIOProcedure, {strSiteID, implicit}, sink)) {
                // The key of the table, site and IOID, is the way in which the rows are found, so they come in its
                // order.
                connection.scan(snapshotColumns, snapshotSource, {strSiteID}, sink);
            }
        });
    });
}

std::optional<MessageRecord> RealtimeDB::GetMessageRecord(std::string_view strSiteID, std::string_view strMsgID) {
    return messages_.read(strSiteID, std::string(strMsgID));
}

bool RealtimeDB::InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                               std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                               std::string_view strDescription) {
    SqlWorker& worker = *sites_.connection(strSiteID, SiteTable::realtime);
    std::string strNewID = messageIDs_.next();
    const std::array<std::string, 7> texts{strNewID,
                                           std::string(strSiteID),
                                           std::string(strMsgType),
                                           std::string(strMsgData),
                                           std::string(strUnused1),
                                           std::string(strUnused2),
                                           std::string(strDescription)};
    const auto insert = [texts, now = localNow()](ISqlConnection& connection) {
        return connection.execute(
            "INSERT INTO Message(ID, SiteID, Type, Data, Text1, Text2, Description, State, Created) "
            "VALUES (?, ?, ?, ?, ?, ?, ?, '', ?)",
            {texts[0], texts[1], texts[2], texts[3], texts[4], texts[5], texts[6], now});
    };
    if (time_.waitFor([&] { return worker.run(insert); }) == 0) {
        return false;
    }
    strMsgID = std::move(strNewID);
    return true;
}

void RealtimeDB::ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) {
    out = parameters_.read(strSiteID, {});
}

void RealtimeDB::releaseSnapshots() {
    currentIO_.clear();
    parameters_.clear();
    messages_.clear();
    snapshots_.clear();
}

}  // namespace quelm
