#include "DB Interface Library/RealtimeDB.h"

#include <fmt/format.h>

#include <limits>
#include <utility>

#include "Shared Types/Date.h"
#include "Shared Types/TimeSource.h"

namespace quelm {

namespace {

std::string text(const SqlValue& value) {
    return value.type == SqlType::Text && value.text.size() <= maxSqlText ? std::string(value.text) : std::string();
}

// False when the row names no parameter and takes no place in the list.
bool readParameter(const ISqlRows& rows, ParameterValue& parameter) {
    const SqlValue pid = rows.value(0);
    if (pid.type != SqlType::Integer || pid.integer < std::numeric_limits<std::int32_t>::min() ||
        pid.integer > std::numeric_limits<std::int32_t>::max()) {
        return false;
    }
    parameter.PID = static_cast<std::int32_t>(pid.integer);
    const SqlValue intervalType = rows.value(1);
    parameter.IntervalType.assign(intervalType.type == SqlType::Text && intervalType.text.size() <= maxSqlText
                                      ? intervalType.text
                                      : std::string_view());
    parameter.Value = sqlVariant(rows.value(2));
    parameter.MonitorCode = sqlVariant(rows.value(3));
    return true;
}

// The present local time, "yyyy-MM-dd HH:mm:ss.fff".
std::string timeStampText() {
    const CivilTime now = civilTime(localNow());
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}", now.year, now.month, now.day, now.hour, now.minute,
                       now.second, now.millisecond);
}

}  // namespace

std::shared_ptr<const CurrentIOCollection> RealtimeDB::ReadCurrentIO(std::string_view strSiteID, bool) {
    const auto rows =
        sites_.connection(strSiteID, SiteTable::realtime)
            .query("SELECT IOID, TStamp, NValue, XValue FROM CurrentIO WHERE SiteID = ? ORDER BY IOID", {strSiteID});
    auto snapshots = snapshots_.find(strSiteID);
    if (snapshots == snapshots_.end()) {
        snapshots = snapshots_.try_emplace(std::string(strSiteID)).first;
    }
    return snapshots->second.read(*rows);
}

std::optional<MessageRecord> RealtimeDB::GetMessageRecord(std::string_view strSiteID, std::string_view strMsgID) {
    const auto rows =
        sites_.connection(strSiteID, SiteTable::realtime)
            .query("SELECT State, Response, Data FROM Message WHERE SiteID = ? AND ID = ?", {strSiteID, strMsgID});
    if (!rows->next()) {
        return std::nullopt;
    }
    return MessageRecord{text(rows->value(0)), text(rows->value(1)), text(rows->value(2))};
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
                {strNewID, strSiteID, strMsgType, strMsgData, strUnused1, strUnused2, strDescription, timeStampText()});
    if (created == 0) {
        return false;
    }
    strMsgID = std::move(strNewID);
    return true;
}

void RealtimeDB::ReadParameterValues(std::string_view strSiteID, std::vector<ParameterValue>& out) {
    const auto rows = sites_.connection(strSiteID, SiteTable::realtime)
                          .query(
                              "SELECT PID, IntervalType, Value, MonitorCode FROM ParameterValue WHERE SiteID = ? "
                              "ORDER BY PID, IntervalType",
                              {strSiteID});
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
