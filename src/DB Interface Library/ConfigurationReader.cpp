#include "DB Interface Library/ConfigurationReader.h"

#include <fmt/format.h>

#include <array>

#include "base/RuntimeError.h"

namespace quelm {

namespace {

// Each of these is done as a whole by the connection's worker.

std::shared_ptr<const OPCDefCollection> readOPCDefs(ISqlConnection& connection, const std::string& strSiteID) {
    // The null value is a number or a text; where columns are typed, its text stands in a column of its own. By itself
    // "Write" is a word of MariaDB's own.
    const std::string sql = fmt::format(
        "SELECT Tagname, ID, TagType, DataType, Q5OPCDEF.Write, NullValue, DownIsValid, UseSubstatus, RefreshRate, {} "
        "FROM Q5OPCDEF WHERE SiteID = ? ORDER BY Position, RecordID",
        connection.hasTypedColumns() ? "NullValueText" : "NULL");
    const auto rows = connection.query(sql, {strSiteID});
    auto definitions = std::make_shared<OPCDefCollection>();
    std::array<SqlValue, 10> columns;
    while (rows->next()) {
        rows->read(columns);
        if (columns[5].type == SqlType::Null) {
            columns[5] = columns[9];
        }
        const auto column = [&columns](std::size_t index) { return sqlVariant(columns[index]); };
        definitions->emplace_back(OPCDef::Columns{column(0), column(1), column(2), column(3), column(4), column(5),
                                                  column(6), column(7), column(8)});
    }
    return definitions;
}

std::shared_ptr<const ChannelDefCollection> readChannelDefs(ISqlConnection& connection, const std::string& strSiteID) {
    const auto rows = connection.query(
        "SELECT ChannelID, Name, DefType FROM IOChannelDef WHERE SiteID = ? ORDER BY ChannelID", {strSiteID});
    auto definitions = std::make_shared<ChannelDefCollection>();
    std::array<SqlValue, 3> columns;
    while (rows->next()) {
        rows->read(columns);
        const auto& [id, name, type] = columns;
        if (const auto channel = sqlWholeNumber(id)) {
            definitions->Add(ChannelDef{*channel, std::string(sqlText(name)), sqlWholeNumber(type).value_or(0)});
        }
    }
    return definitions;
}

std::vector<PIDDefinition> readPIDDefinitions(ISqlConnection& connection, std::int64_t dahsID) {
    const auto rows =
        connection.query("SELECT PID, IntervalType, Name FROM PIDDef WHERE DAHSID = ? ORDER BY PID", {dahsID});
    std::vector<PIDDefinition> definitions;
    std::array<SqlValue, 3> columns;
    while (rows->next()) {
        rows->read(columns);
        if (const auto pid = sqlWholeNumber(columns[0])) {
            definitions.push_back(
                PIDDefinition{*pid, std::string(sqlText(columns[1])), std::string(sqlText(columns[2]))});
        }
    }
    return definitions;
}

SiteSettings readSiteSettings(ISqlConnection& connection, const std::string& strSiteID, std::int64_t dahsID) {
    const auto rows = connection.query("SELECT FirstDayOfWeek FROM SiteSettings WHERE SiteID = ? AND DAHSID = ?",
                                       {strSiteID, dahsID});
    SiteSettings settings;
    if (rows->next()) {
        std::array<SqlValue, 1> columns;
        rows->read(columns);
        const std::int32_t day = sqlWholeNumber(columns[0]).value_or(0);
        settings.FirstDayOfWeek = day >= 1 && day <= 7 ? day : 0;
    }
    return settings;
}

}  // namespace

std::shared_ptr<const OPCDefCollection> ConfigurationReader::LoadOPCDefs(std::string_view strSiteID) {
    try {
        return worker(strSiteID).run(
            [id = std::string(strSiteID)](ISqlConnection& connection) { return readOPCDefs(connection, id); });
    } catch (...) {
        if (problems_) {
            problems_(
                fmt::format("Site '{}': cannot read the OPC item definitions: {}", strSiteID, currentError().text()));
        }
        return nullptr;
    }
}

std::shared_ptr<const ChannelDefCollection> ConfigurationReader::LoadChannelNames(std::string_view strSiteID) {
    try {
        return LoadChannelDefs(strSiteID);
    } catch (...) {
        if (problems_) {
            problems_(
                fmt::format("Site '{}': cannot read the names of the channels, clients see the items without them: {}",
                            strSiteID, currentError().text()));
        }
        return nullptr;
    }
}

std::shared_ptr<const ChannelDefCollection> ConfigurationReader::LoadChannelDefs(std::string_view strSiteID) {
    return worker(strSiteID).run(
        [id = std::string(strSiteID)](ISqlConnection& connection) { return readChannelDefs(connection, id); });
}

std::vector<PIDDefinition> ConfigurationReader::LoadPIDDefinitions(std::string_view strSiteID, std::int32_t lngDAHSID) {
    return worker(strSiteID).run(
        [lngDAHSID](ISqlConnection& connection) { return readPIDDefinitions(connection, lngDAHSID); });
}

SiteSettings ConfigurationReader::LoadSiteSettings(std::string_view strSiteID, std::int32_t lngDAHSID) {
    return worker(strSiteID).run([id = std::string(strSiteID), lngDAHSID](ISqlConnection& connection) {
        return readSiteSettings(connection, id, lngDAHSID);
    });
}

}  // namespace quelm
