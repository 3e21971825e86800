#include "OPC/Client/ValueForms.h"

#include <cmath>

#include "base/Quality.h"
#include "opcda/client/Words.h"

namespace quelm::opcclient {

using namespace opcda::client;
using opcda::VT_BOOL;
using opcda::VT_CY;
using opcda::VT_DATE;
using opcda::VT_DECIMAL;
using opcda::VT_R4;
using opcda::VT_UI8;

namespace {

Json numberOf(double number) {
    return std::isfinite(number) ? Json(number) : Json();
}

// The shortest digits that give the same 32-bit number back, not the 64-bit ones next to it.
Json singleOf(const Value& value, double number) {
    return std::isfinite(number) ? Json::parse(textOf(value), nullptr, false) : Json();
}

Json scalarOf(const Value& value) {
    if (value.type == VT_BOOL || value.type == VT_CY || value.type == VT_DECIMAL) {
        const auto number = value.number();
        return !number ? Json() : value.type == VT_BOOL ? Json(*number != 0) : numberOf(*number);
    }
    if (value.type == VT_DATE) {
        return textOf(value);
    }
    if (const auto* whole = std::get_if<std::int64_t>(&value.contents)) {
        return value.type == VT_UI8 ? Json(static_cast<std::uint64_t>(*whole)) : Json(*whole);
    }
    if (const auto* real = std::get_if<double>(&value.contents)) {
        return value.type == VT_R4 ? singleOf(value, *real) : numberOf(*real);
    }
    const auto* text = std::get_if<std::string>(&value.contents);
    return text == nullptr ? Json() : Json(*text);
}

}  // namespace

Json jsonOf(const Value& value) {
    if (!value.isArray()) {
        return scalarOf(value);
    }
    Json list = Json::array();
    for (std::size_t i = 0; i < value.size(); ++i) {
        list.push_back(jsonOf(value.at(i)));
    }
    return list;
}

Tone toneOf(std::uint16_t quality) {
    return quality::isGood(quality) ? Tone::Good : quality::isBad(quality) ? Tone::Bad : Tone::Doubtful;
}

bool isTrouble(const ItemValue& item) {
    return failed(item.result) || quality::isBad(item.quality);
}

Cell resultCell(HResult result) {
    if (!failed(result)) {
        return {Json(), " ", Tone::Plain};
    }
    return {resultName(result), resultText(result), Tone::Bad};
}

std::vector<Column> readingColumns() {
    return {{"item", "Item"}, {"type", "Type"},           {"value", "Value"},
            {"quality", ""},  {"qualityText", "Quality"}, {"timestamp", "Time stamp (UTC)"},
            {"error", ""}};
}

std::vector<Cell> readingRow(const ItemValue& item) {
    if (failed(item.result)) {
        const Cell error = resultCell(item.result);
        return {Cell{item.itemId},
                Cell{Json(), " "},
                Cell{Json(), " "},
                Cell{Json()},
                Cell{Json(), error.text, Tone::Bad},
                Cell{Json(), " "},
                error};
    }
    const std::string quality = qualityText(item.quality);
    return {Cell{item.itemId},
            Cell{typeName(item.value.type)},
            Cell{jsonOf(item.value), textOf(item.value)},
            Cell{item.quality},
            Cell{quality, "", toneOf(item.quality)},
            Cell{item.fileTime == 0 ? Json() : Json(fileTimeText(item.fileTime))},
            resultCell(item.result)};
}

}  // namespace quelm::opcclient
