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

}  // namespace

std::shared_ptr<const CurrentIOCollection> RealtimeDB::ReadCurrentIO(std::string_view strSiteID,
                                                                     bool blnUseImplicitChannels) {
    ISqlConnection& connection = sites_.connection(strSiteID, SiteTable::realtime);
    auto snapshots = snapshots_.find(strSiteID);
    if (snapshots == snapshots_.end()) {
        snapshots = snapshots_.try_emplace(std::string(strSiteID)).first;
    }
    const std::int64_t implicit = blnUseImplicitChannels ? 1 : 0;
    return snapshots->second.read([&](ISqlRowSink& sink) {
        if (!connection.call(snapshotColumns, realtime::currentIOProcedure, {strSiteID, implicit}, sink)) {
            // The key of the table, site and IOID, is the way in which the rows are found, so they come in its order.
            connection.scan(snapshotColumns, snapshotSource, {strSiteID}, sink);
        }
    });
}

std::optional<MessageRecord> RealtimeDB::GetMessageRecord(std::string_view strSiteID, std::string_view strMsgID) {
    const auto rows =
        sites_.connection(strSiteID, SiteTable::realtime)
            .query("SELECT State, Response, Data FROM Message WHERE SiteID = ? AND ID = ?", {strSiteID, strMsgID});
    if (!rows->next()) {
        return std::nullopt;
    }
    std::array<SqlValue, 3> columns;
    rows->read(columns);
    const auto& [state, response, data] = columns;
    return MessageRecord{std::string(sqlText(state)), std::string(sqlText(response)), std::string(sqlText(data))};
}

bool RealtimeDB::InsertMessage(std::string& strMsgID, std::string_view strSiteID, std::string_view strMsgType,
                               std::string_view strMsgData, std::string_view strUnused1, std::string_view strUnused2,
                               std::string_view strDescription) {
    std::string strNewID = messageIDs_.next();
    const std::int64_t created =
        sites_.connection(strSiteID, SiteTable::realtime)
            .execute(
                "INSERT INTO Message(ID, SiteID, Type, Data, Text1, Text2, Description, State, Created) "
                "VALUES (?, ?, ?, ?, ?, ?, ?, '', ?)",
                {strNewID, strSiteID, strMsgType, strMsgData, strUnused1, strUnused2, strDescription, localNow()});
    if (created == 0) {
        return false;
    }
    strMsgID = std::move(strNewID);
    return true;
}

void RealtimeDB::ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) {
    ISqlConnection& connection = sites_.connection(strSiteID, SiteTable::realtime);
    static const std::array queries = {parameterQuery(false), parameterQuery(true)};
    const auto rows = connection.query(queries[connection.hasTypedColumns() ? 1 : 0], {strSiteID});
    std::size_t count = 0;
    while (rows->next()) {
        if (count == out.size()) {
            out.emplace_back();
        }
        if (readParameter(*rows, out[count])) {
            ++count;
        }
    }
    out.resize(count);
}

}  // namespace quelm
