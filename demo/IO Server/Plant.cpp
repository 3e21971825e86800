#include "Plant.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>

namespace demo {

namespace {

constexpr long cyclesPerRefresh = 60;

bool isNumber(const std::string& text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && std::isfinite(number);
}

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace

// Only counters are above 1000; monitor codes and switches, the smaller whole numbers, stay as they are.
Plant::Plant(Database& database)
    : database_(database),
      channels_(moving("SELECT SiteID, IOID, NValue FROM CurrentIO WHERE typeof(NValue) = 'real'")),
      counters_(
          moving("SELECT SiteID, IOID, NValue FROM CurrentIO WHERE typeof(NValue) = 'integer' AND NValue > 1000")),
      parameters_(moving("SELECT SiteID, PID, Value FROM ParameterValue WHERE typeof(Value) = 'real'")) {}

std::vector<Plant::Moving> Plant::moving(const std::string& sql) {
    std::vector<Moving> found;
    database_.query(sql, {}, [&found](sqlite3_stmt* row) {
        found.push_back({columnText(row, 0), columnText(row, 1), sqlite3_column_double(row, 2)});
    });
    return found;
}

void Plant::cycle() {
    const std::string now = localStamp(' ');
    for (std::size_t i = 0; i < channels_.size(); ++i) {
        database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = CAST(? AS REAL) WHERE SiteID = ? AND IOID = ?",
                      {now, swung(channels_[i], i), channels_[i].siteID, channels_[i].key});
    }
    for (const Moving& counter : counters_) {
        database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = NValue + 1 WHERE SiteID = ? AND IOID = ?",
                      {now, counter.siteID, counter.key});
    }
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
        database_.run("UPDATE ParameterValue SET TStamp = ?, Value = CAST(? AS REAL) WHERE SiteID = ? AND PID = ?",
                      {now, swung(parameters_[i], i + 50), parameters_[i].siteID, parameters_[i].key});
    }
    beat(now);
    if (cycles_++ % cyclesPerRefresh == 0) {
        completeRefresh(now);
    }
}

void Plant::beat(const std::string& now) {
    database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = 1 WHERE IOID IN ('IOS.AllCommsOk', 'IOS6.AllCommsOk')",
                  {now});
}

void Plant::completeRefresh(const std::string& now) {
    const std::string finish = localStamp('T');
    database_.run(
        "UPDATE CurrentIO SET TStamp = ?, XValue = '<Start>' || ? || '</Start><Finish>' || ? || '</Finish>' "
        "WHERE IOID IN ('IOS.AllDataRefreshed', 'IOS6.AllDataRefreshed')",
        {now, lastRefresh_.empty() ? finish : lastRefresh_, finish});
    lastRefresh_ = finish;
}

std::string Plant::swung(const Moving& value, std::size_t phase) const {
    const double swing = std::sin(static_cast<double>(cycles_) / 11.0 + static_cast<double>(phase));
    return fmt::format("{:.3f}", value.middle * (1 + 0.04 * swing));
}

bool Plant::write(const std::string& siteID, const std::string& ioid, const std::string& value) {
    hold(siteID, ioid);
    const std::string now = localStamp(' ');
    if (isNumber(value)) {
        const std::string type = value.find_first_not_of("-0123456789") == std::string::npos ? "INTEGER" : "REAL";
        database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = CAST(? AS " + type +
                          "), XValue = NULL WHERE SiteID = ? AND IOID = ?",
                      {now, value, siteID, ioid});
    } else {
        database_.run("UPDATE CurrentIO SET TStamp = ?, NValue = NULL, XValue = ? WHERE SiteID = ? AND IOID = ?",
                      {now, "<Value>" + escaped(value) + "</Value>", siteID, ioid});
    }
    return database_.changes() > 0;
}

bool Plant::refresh(const std::string& siteID, const std::string& ioid) {
    database_.run("UPDATE CurrentIO SET TStamp = ? WHERE SiteID = ? AND IOID = ?", {localStamp(' '), siteID, ioid});
    return database_.changes() > 0;
}

void Plant::refreshAll(const std::string& siteID, Generation generation) {
    const std::string start = localStamp('T');
    database_.run(
        "UPDATE CurrentIO SET TStamp = ? WHERE SiteID = ? AND (IOID GLOB 'C[0-9]*' OR IOID GLOB 'MultiValueC*')",
        {localStamp(' '), siteID});
    database_.run(
        "UPDATE CurrentIO SET TStamp = ?, XValue = '<Start>' || ? || '</Start><Finish>' || ? || '</Finish>' "
        "WHERE SiteID = ? AND IOID = ?",
        {localStamp(' '), start, localStamp('T'), siteID,
         generation == Generation::IOS5 ? "IOS.AllDataRefreshed" : "IOS6.AllDataRefreshed"});
}

void Plant::hold(std::string_view siteID, std::string_view ioid) {
    const auto isHeld = [&](const Moving& value) { return value.siteID == siteID && value.key == ioid; };
    std::erase_if(channels_, isHeld);
    std::erase_if(counters_, isHeld);
}

}  // namespace demo
