#include "DB Interface Library/RealtimeDB.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <span>
#include <utility>

#include "DB Interface Library/DBRealtimeConstants.h"
#include "base/Date.h"
#include "base/TimeSource.h"

namespace quelm {

namespace {

class ParameterWriter final : public ISqlRowSink {
 public:
    // A row that names no parameter takes no place.
    void take(std::span<const SqlValue> columns) override {
        if (const std::optional<std::int32_t> number = sqlWholeNumber(columns[0])) {
            const SqlValue& value = columns[2].type == SqlType::Null ? columns[4] : columns[2];
            values_.push_back({{sqlVariant(value), sqlVariant(columns[3])}, *number, std::string(sqlText(columns[1]))});
        }
    }

    // Scans come in any order.
    std::vector<ParameterValue> inOrder() && {
        const auto isBefore = [](const ParameterValue& left, const ParameterValue& right) {
            return left.PID != right.PID ? left.PID < right.PID : left.IntervalType < right.IntervalType;
        };
        if (!std::is_sorted(values_.begin(), values_.end(), isBefore)) {
            std::sort(values_.begin(), values_.end(), isBefore);
        }
        values_.shrink_to_fit();
        return std::move(values_);
    }

 private:
    std::vector<ParameterValue> values_;
};

const std::string snapshotColumns = fmt::format("{}, {}, {}, {}", realtime::ioIDColumn, realtime::timeStampColumn,
                                                realtime::nValueColumn, realtime::xValueColumn);
const std::string snapshotSource = fmt::format("{} WHERE {} = ?", realtime::currentIOTable, realtime::siteIDColumn);

std::vector<ParameterValue> readParameters(ISqlConnection& connection, const std::string& strSiteID) {
    // A parameter's value is a number or a text; where columns are typed, its text stands in a column of its own.
    ParameterWriter writer;
    connection.scan(connection.hasTypedColumns() ? "PID, IntervalType, Value, MonitorCode, ValueText"
                                                 : "PID, IntervalType, Value, MonitorCode, NULL",
                    "ParameterValue WHERE SiteID = ?", {strSiteID}, writer);
    return std::move(writer).inOrder();
}

std::optional<MessageRecord> readMessage(ISqlConnection& connection, const std::string& strSiteID,
                                         const std::string& strMsgID) {
    const auto rows = connection.query("SELECT State, Response, Data FROM Message WHERE SiteID = ? AND ID = ?",
                                       {strSiteID, strMsgID});
    if (!rows->next()) {
        return std::nullopt;
    }
    std::array<SqlValue, 3> columns;
    rows->read(columns);
    const auto& [state, response, data] = columns;
    return MessageRecord{std::string(sqlText(state)), std::string(sqlText(response)), std::string(sqlText(data))};
}

// Clusters take a write back that met another one; behind that one it mostly succeeds. Tried once more, unless so much
// of the time has gone that the caller might have given up before it succeeds.
template <class Write>
std::int64_t writtenInspiteOfOthers(const ISqlConnection& connection, Write write) {
    const auto begun = std::chrono::steady_clock::now();
    try {
        return write();
    } catch (const SqlConflict&) {
        if (std::chrono::steady_clock::now() - begun > connection.timeouts().grace) {
            throw;
        }
    }
    return write();
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
    return worker.begin(
        [read = snapshots_[strSiteID].begin(), strSiteID, implicit](ISqlConnection& connection) mutable {
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
        return writtenInspiteOfOthers(connection, [&] {
            return connection.execute(
                "INSERT INTO Message(ID, SiteID, Type, Data, Text1, Text2, Description, State, Created) "
                "VALUES (?, ?, ?, ?, ?, ?, ?, '', ?)",
                {texts[0], texts[1], texts[2], texts[3], texts[4], texts[5], texts[6], now});
        });
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

void RealtimeDB::expect(std::string_view strSiteID) {
    currentIO_.expect(strSiteID);
    parameters_.expect(strSiteID);
}

void RealtimeDB::releaseSnapshots() {
    currentIO_.clear();
    parameters_.clear();
    messages_.clear();
    snapshots_.clear();
}

}  // namespace quelm
