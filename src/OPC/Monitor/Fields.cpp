#include "OPC/Monitor/Fields.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace quelm::monitor {
namespace {

const Json* memberOf(const Json& object, const char* name) {
    if (!object.is_object()) {
        return nullptr;
    }
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

}  // namespace

std::optional<double> numberIn(const Json& object, const char* name) {
    const Json* member = memberOf(object, name);
    if (member && member->is_boolean()) {
        return member->get<bool>() ? 1 : 0;
    }
    if (!member || !member->is_number()) {
        return std::nullopt;
    }
    const double number = member->get<double>();
    return std::isfinite(number) ? std::optional(number) : std::nullopt;
}

std::string textIn(const Json& object, const char* name) {
    const Json* member = memberOf(object, name);
    return member && member->is_string() ? member->get<std::string>() : std::string();
}

const Json& listIn(const Json& object, const char* name) {
    static const Json none = Json::array();
    const Json* member = memberOf(object, name);
    return member && member->is_array() ? *member : none;
}

std::optional<double> timeIn(const Json& object, const char* name) {
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    unsigned hour = 0;
    unsigned minute = 0;
    double second = 0;
    char zone = 0;
    const std::string text = textIn(object, name);
    if (text.size() > 40 || std::sscanf(text.c_str(), "%4d-%2u-%2uT%2u:%2u:%6lf%c", &year, &month, &day, &hour, &minute,
                                        &second, &zone) != 7) {
        return std::nullopt;
    }
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
    if (zone != 'Z' || !date.ok() || hour > 23 || minute > 59 || !(second >= 0 && second < 61)) {
        return std::nullopt;
    }
    const auto days = std::chrono::sys_days(date).time_since_epoch();
    return static_cast<double>(std::chrono::seconds(days).count() + hour * 3600L + minute * 60L) + second;
}

}  // namespace quelm::monitor
