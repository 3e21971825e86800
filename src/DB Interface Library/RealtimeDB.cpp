#include "DB Interface Library/RealtimeDB.h"

#include <limits>

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
