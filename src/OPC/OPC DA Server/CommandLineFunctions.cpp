#include "OPC/OPC DA Server/CommandLineFunctions.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>

#include "OPC/OPC DA Server/UtilityFunctions.h"
#include "base/Conversion.h"
#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

std::int32_t checked(std::int64_t value) {
    return value == static_cast<std::int32_t>(value) ? static_cast<std::int32_t>(value)
                                                     : throw RuntimeError(errors::overflow);
}

enum class Period { Now, Hour, Day, Month, Quarter, HalfYear, Year };

struct Keyword {
    std::string_view text;
    Period period;
    bool isEnd;
};

// In this order, so that no keyword hides a longer one that begins with it.
constexpr Keyword keywords[] = {
    {"currenthourend", Period::Hour, true},
    {"currentdayend", Period::Day, true},
    {"todayend", Period::Day, true},
    {"currentmonthend", Period::Month, true},
    {"currentquarterend", Period::Quarter, true},
    {"currenthalfyearend", Period::HalfYear, true},
    {"currentyearend", Period::Year, true},
    {"now", Period::Now, false},
    {"currenthour", Period::Hour, false},
    {"currentday", Period::Day, false},
    {"today", Period::Day, false},
    {"currentmonth", Period::Month, false},
    {"currentquarter", Period::Quarter, false},
    {"currenthalfyear", Period::HalfYear, false},
    {"currentyear", Period::Year, false},
};

// The start of the present period and how to step from one to the next.
struct PeriodStep {
    Date start;
    std::string_view unit;
    std::int32_t count;
};

PeriodStep stepOf(Period period, Date now) {
    switch (period) {
        case Period::Now:
            return {now, "n", 1};
        case Period::Hour:
            return {StartOfInterval(now, 3600, false), "h", 1};
        case Period::Day:
            return {StartOfInterval(now, 86'400, false), "d", 1};
        case Period::Month:
            return {StartOfMonth(now), "m", 1};
        case Period::Quarter:
            return {StartOfQuarter(now), "m", 3};
        case Period::HalfYear:
            return {StartOfHalfYear(now), "m", 6};
        case Period::Year:
            return {StartOfYear(now), "yyyy", 1};
    }
    throw RuntimeError(errors::invalidCall);
}

// Neither form has seconds: the end of a period deliberately comes back as its last whole minute.
std::string keywordText(Date date, bool withTime) {
    const CivilTime civil = civilTime(date);
    const std::string day = fmt::format("{:04}-{:02}-{:02}", civil.year, civil.month, civil.day);
    return withTime ? fmt::format("{} {:02}:{:02}", day, civil.hour, civil.minute) : day;
}

std::string resolve(const Keyword& keyword, std::int32_t offset) {
    const PeriodStep step = stepOf(keyword.period, CurrentTime());
    const std::int32_t periods = keyword.isEnd ? checked(std::int64_t{offset} + 1) : offset;
    Date date = DateAddEx(step.unit, checked(std::int64_t{periods} * step.count), step.start);
    if (keyword.isEnd) {
        date = DateAddEx("s", -1, date);
    }
    return keywordText(date, keyword.isEnd || keyword.period == Period::Now || keyword.period == Period::Hour);
}

std::string resolveKeyword(const std::string& value) {
    for (const Keyword& keyword : keywords) {
        if (equalsIgnoringCase(leftCharacters(value, keyword.text.size()), keyword.text)) {
            return resolve(keyword, GetKeywordOffset(value));
        }
    }
    return value;
}

std::string trimmedBetween(std::string_view text, const std::string& startMarker, std::string_view endMarker) {
    return std::string(trimBlanks(GetTextBetween(text, startMarker, endMarker)));
}

std::string dateValue(std::string_view commandLine, std::string_view name) {
    const std::string marked = trimmedBetween(commandLine, std::string(name) + "#", "#");
    return marked.empty() ? resolveKeyword(trimmedBetween(commandLine, std::string(name) + "\"", "\"")) : marked;
}

// rest begins with a double quote; the value up to its closing one, doubled quotes made single. Nothing when it never
// closes.
std::optional<std::string> quotedValue(std::string_view rest) {
    std::size_t at = rest.find('"', 1);
    while (at != std::string_view::npos && at + 1 < rest.size() && rest[at + 1] == '"') {
        at = rest.find('"', at + 2);
    }
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    std::string value;
    for (std::size_t i = 0; i <= at; ++i) {
        value += rest[i];
        i += rest.substr(i, 2) == "\"\"" && i < at ? 1 : 0;
    }
    return value;
}

// The value behind a name that stands at the 1-based position of the command line.
std::string plainValue(std::string_view commandLine, std::int32_t position, std::string_view name, bool asString) {
    const std::size_t before = static_cast<std::size_t>(position) - 1;
    const std::size_t valueAt = leftCharacters(commandLine, before + characterCount(name)).size();
    const std::string_view rest = commandLine.substr(valueAt);
    std::optional<std::string> value;
    if (asString && rest.starts_with('"')) {
        value = quotedValue(rest);
    }
    if (!value) {
        // The search begins behind the name's first character: a "/" that is part of the name ends the value before it
        // begins.
        const std::size_t slash = commandLine.find('/', leftCharacters(commandLine, before + 1).size());
        const std::size_t end = std::min(slash, commandLine.size());
        value = std::string(commandLine.substr(valueAt, end > valueAt ? end - valueAt : 0));
    }
    return std::string(StripQuotes(trimBlanks(*value)));
}

Variant typedValue(const std::string& value, bool asString) {
    if (value.empty()) {
        return Variant();
    }
    Variant text(value);
    if (!asString && isNumeric(text)) {
        return Variant(toInt32(text));
    }
    if (!asString && isDateLike(text)) {
        return Variant(toDate(text));
    }
    return text;
}

}  // namespace

Variant GetCommandLineArg(std::string_view strCommandLine, std::string_view strName, bool blnIsDate, bool blnAsString) {
    const std::int32_t position = FindText(1, strCommandLine, strName, CompareMode::IgnoreCase);
    if (position == 0) {
        return Variant::null();
    }
    if (!strName.ends_with('=')) {
        return Variant();
    }
    return typedValue(
        blnIsDate ? dateValue(strCommandLine, strName) : plainValue(strCommandLine, position, strName, blnAsString),
        blnAsString);
}

std::int32_t GetKeywordOffset(std::string_view strKeyword) {
    const std::optional<double> number = parseNumber(GetTextBetween(strKeyword, "-", ""));
    return number ? roundToInt32(-*number) : 0;
}

}  // namespace quelm
