#include "Plant.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>

#include "base/Conversion.h"
#include "base/TimeSource.h"

namespace demo {

using quelm::Date;
using quelm::SqlParameter;
using quelm::SqlType;
using quelm::SqlValue;

namespace {

constexpr long cyclesPerRefresh = 60;
// Monitor codes and switches, the smaller whole numbers, stay as they are.
constexpr double countersAbove = 1000;

// 0, which does not move, for what is no number.
double numberOf(const SqlValue& value) {
    const bool isNumber =
        value.type == SqlType::Integer || value.type == SqlType::Real || value.type == SqlType::Decimal;
    return isNumber ? quelm::toDouble(quelm::sqlVariant(value)) : 0;
}

bool isFraction(double number) {
    return number != std::trunc(number);
}

template <class Number>
bool readWhole(const std::string& text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// The number that the whole text is; NULL for any other text.
SqlParameter numberIn(const std::string& text) {
    std::int64_t whole = 0;
    double number = 0;
    if (readWhole(text, whole)) {
        return whole;
    }
    return readWhole(text, number) && std::isfinite(number) ? SqlParameter(number) : SqlParameter();
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

std::string isoText(Date date) {
    const quelm::CivilTime time = quelm::civilTime(date);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}", time.year, time.month, time.day, time.hour,
                       time.minute, time.second, time.millisecond);
}

std::string refreshXml(Date start, Date finish) {
    return fmt::format("<Start>{}</Start><Finish>{}</Finish>", isoText(start), isoText(finish));
}

}  // namespace

Plant::Plant(quelm::ISqlConnection& database) : database_(database) {
    findChannels();
    findParameters();
}

void Plant::findChannels() {
    const auto rows = database_.query("SELECT SiteID, IOID, NValue FROM CurrentIO", {});
    while (rows->next()) {
        std::array<SqlValue, 3> columns;
        rows->read(columns);
        const double value = numberOf(columns[2]);
        const Channel channel{std::string(sqlText(columns[0])), std::string(sqlText(columns[1])), value};
        if (isFraction(value)) {
            channels_.push_back(channel);
        } else if (value > countersAbove) {
            counters_.push_back(channel);
        }
    }
}

void Plant::findParameters() {
    const auto rows = database_.query("SELECT SiteID, PID, IntervalType, Value FROM ParameterValue", {});
    while (rows->next()) {
        std::array<SqlValue, 4> columns;
        rows->read(columns);
        const auto& [siteID, pid, intervalType, value] = columns;
        if (isFraction(numberOf(value))) {
            parameters_.push_back({std::string(sqlText(siteID)), sqlWholeNumber(pid).value_or(0),
                                   std::string(sqlText(intervalType)), numberOf(value)});
        }
    }
}

void Plant::cycle() {
    const Date now = quelm::localNow();
    beat(now);
    for (std::size_t i = 0; i < channels_.size(); ++i) {
        database_.execute("UPDATE CurrentIO SET TStamp = ?, NValue = ? WHERE SiteID = ? AND IOID = ?",
                          {now, swung(channels_[i].middle, i), channels_[i].siteID, channels_[i].ioid});
    }
    for (const Channel& counter : counters_) {
        database_.execute("UPDATE CurrentIO SET TStamp = ?, NValue = NValue + 1 WHERE SiteID = ? AND IOID = ?",
                          {now, counter.siteID, counter.ioid});
    }
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
        const Parameter& parameter = parameters_[i];
        database_.execute(
            "UPDATE ParameterValue SET TStamp = ?, Value = ? WHERE SiteID = ? AND PID = ? AND IntervalType = ?",
            {now, swung(parameter.middle, i + 50), parameter.siteID, parameter.pid, parameter.intervalType});
    }
    if (cycles_ % cyclesPerRefresh == 0) {
        completeRefresh(now);
    }
    ++cycles_;
}

void Plant::beat(Date now) {
    database_.execute("UPDATE CurrentIO SET TStamp = ?, NValue = 1 WHERE IOID IN ('IOS.AllCommsOk', 'IOS6.AllCommsOk')",
                      {now});
}

void Plant::completeRefresh(Date now) {
    database_.execute(
        "UPDATE CurrentIO SET TStamp = ?, XValue = ? WHERE IOID IN ('IOS.AllDataRefreshed', 'IOS6.AllDataRefreshed')",
        {now, refreshXml(lastRefresh_.isZero() ? now : lastRefresh_, now)});
    lastRefresh_ = now;
}

double Plant::swung(double middle, std::size_t phase) const {
    const double swing = std::sin(static_cast<double>(cycles_) / 11.0 + static_cast<double>(phase));
    return std::round(middle * (1 + 0.04 * swing) * 1000) / 1000;
}

bool Plant::write(const std::string& siteID, const std::string& ioid, const std::string& value) {
    hold(siteID, ioid);
    const SqlParameter number = numberIn(value);
    const bool isNumber = !std::holds_alternative<std::monostate>(number);
    const std::string xml = "<Value>" + escaped(value) + "</Value>";
    return database_.execute("UPDATE CurrentIO SET TStamp = ?, NValue = ?, XValue = ? WHERE SiteID = ? AND IOID = ?",
                             {quelm::localNow(), number, isNumber ? SqlParameter() : SqlParameter(xml), siteID, ioid}) >
           0;
}

bool Plant::refresh(const std::string& siteID, const std::string& ioid) {
    return database_.execute("UPDATE CurrentIO SET TStamp = ? WHERE SiteID = ? AND IOID = ?",
                             {quelm::localNow(), siteID, ioid}) > 0;
}

void Plant::refreshAll(const std::string& siteID, Generation generation) {
    const Date start = quelm::localNow();
    database_.execute(
        "UPDATE CurrentIO SET TStamp = ? WHERE SiteID = ? AND (IOID LIKE 'C%' OR IOID LIKE 'MultiValueC%')",
        {start, siteID});
    const Date finish = quelm::localNow();
    database_.execute("UPDATE CurrentIO SET TStamp = ?, XValue = ? WHERE SiteID = ? AND IOID = ?",
                      {finish, refreshXml(start, finish), siteID,
                       generation == Generation::IOS5 ? "IOS.AllDataRefreshed" : "IOS6.AllDataRefreshed"});
}

void Plant::hold(std::string_view siteID, std::string_view ioid) {
    const auto isHeld = [&](const Channel& channel) { return channel.siteID == siteID && channel.ioid == ioid; };
    std::erase_if(channels_, isHeld);
    std::erase_if(counters_, isHeld);
}

}  // namespace demo
