#include "OPC/Health/Words.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <utility>

#include "base/Conversion.h"
#include "base/Date.h"
#include "base/Quality.h"

namespace quelm::health {

namespace {

constexpr std::int64_t unitsPerMillisecond = 10'000;
constexpr std::int64_t millisecondsPerDay = 86'400'000;
constexpr int lastYear = 9999;
constexpr std::size_t longestText = 4000;  // bytes; clients of OPC have all of it

constexpr std::array typeNames{
    std::pair{VariantKind::Empty, "VT_EMPTY"},  std::pair{VariantKind::Null, "VT_NULL"},
    std::pair{VariantKind::Int16, "VT_I2"},     std::pair{VariantKind::Int32, "VT_I4"},
    std::pair{VariantKind::Single, "VT_R4"},    std::pair{VariantKind::Double, "VT_R8"},
    std::pair{VariantKind::Currency, "VT_CY"},  std::pair{VariantKind::Date, "VT_DATE"},
    std::pair{VariantKind::Text, "VT_BSTR"},    std::pair{VariantKind::Error, "VT_ERROR"},
    std::pair{VariantKind::Boolean, "VT_BOOL"}, std::pair{VariantKind::Decimal, "VT_DECIMAL"},
    std::pair{VariantKind::Byte, "VT_UI1"},     std::pair{VariantKind::TextArray, "VT_ARRAY|VT_BSTR"},
};

constexpr std::array substatuses{
    std::pair{quality::badDeviceFailure, "device failure"},
    std::pair{quality::badCommFailure, "communication failure"},
    std::pair{quality::badOutOfService, "out of service"},
    std::pair{quality::uncertainLastUsable, "last usable value"},
    std::pair{quality::uncertainSensor, "sensor not accurate"},
    std::pair{quality::uncertainUnitsExceeded, "engineering units exceeded"},
    std::pair{quality::uncertainSubNormal, "sub-normal"},
};

constexpr std::uint16_t qualityAndSubstatus = 0xFC;

}  // namespace

std::string lineOf(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json timeOf(std::int64_t fileTime) {
    const std::int64_t milliseconds = fileTime / unitsPerMillisecond;
    if (fileTime <= 0 || milliseconds / millisecondsPerDay + dayNumber(1601, 1, 1) >= dayNumber(lastYear + 1, 1, 1)) {
        return nullptr;
    }
    const CivilTime time =
        civilTime(dateFromLinearMilliseconds(milliseconds + dayNumber(1601, 1, 1) * millisecondsPerDay));
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", time.year, time.month, time.day, time.hour,
                       time.minute, time.second, time.millisecond);
}

Json valueOf(const Variant& value) {
    switch (value.kind()) {
        case VariantKind::Empty:
        case VariantKind::Null:
        case VariantKind::Object:
        case VariantKind::TextArray:
            return nullptr;
        case VariantKind::Boolean:
            return value.boolean();
        case VariantKind::Int16:
        case VariantKind::Int32:
        case VariantKind::Byte:
            return toInt32(value);
        // With as many digits as it has, and not with those of a double that is near it.
        case VariantKind::Single:
            return std::isfinite(value.single()) ? Json::parse(fmt::format("{}", value.single())) : Json();
        case VariantKind::Double:
        case VariantKind::Currency:
        case VariantKind::Decimal:
            return toDouble(value);
        default:
            return toText(value).substr(0, longestText);
    }
}

std::string_view typeNameOf(std::uint16_t varType) {
    for (const auto& [kind, name] : typeNames) {
        if (static_cast<std::uint16_t>(kind) == varType) {
            return name;
        }
    }
    return "";
}

std::string qualityWords(std::uint16_t quality) {
    std::string words = quality::isGood(quality) ? "good" : quality::isBad(quality) ? "bad" : "uncertain";
    for (const auto& [word, text] : substatuses) {
        if ((quality & qualityAndSubstatus) == word) {
            words += fmt::format(", {}", text);
        }
    }
    return words;
}

}  // namespace quelm::health
