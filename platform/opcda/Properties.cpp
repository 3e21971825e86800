#include "opcda/Properties.h"

#include <algorithm>
#include <array>

#include "opcda/ItemLookup.h"
#include "slikda/Identity.h"

namespace quelm::opcda {

namespace {

enum PropertyId : std::uint32_t { dataType = 1, itemValue, itemQuality, itemTimestamp, accessRights, scanRate };

// The value's own type is the item's.
constexpr std::array<PropertyDescription, 6> descriptions{{
    {dataType, "Item Canonical DataType", VT_I2},
    {itemValue, "Item Value", VT_EMPTY},
    {itemQuality, "Item Quality", VT_I2},
    {itemTimestamp, "Item Timestamp", VT_DATE},
    {accessRights, "Item Access Rights", VT_I4},
    {scanRate, "Server Scan Rate", VT_R4},
}};

bool isKnown(std::uint32_t id) {
    return id >= dataType && id <= scanRate;
}

// Days since 1899-12-30 in UTC; an item without a time stamp has no value here.
Variant utcDate(std::int64_t fileTime) {
    constexpr double unitsPerDay = 864'000'000'000;
    constexpr double fileTimeEpoch = -109205;
    return fileTime == 0 ? Variant() : Variant(Date{static_cast<double>(fileTime) / unitsPerDay + fileTimeEpoch});
}

Variant propertyOf(const SLIKTag& tag, std::uint32_t id) {
    switch (id) {
        case dataType:
            return Variant(static_cast<std::int16_t>(tag.varType()));
        case itemValue:
            return tag.Value();
        case itemQuality:
            return Variant(static_cast<std::int16_t>(tag.qualityWord()));
        case itemTimestamp:
            return utcDate(tag.fileTime());
        case accessRights:
            return Variant(static_cast<std::int32_t>(tag.accessRights()));
        default:
            return Variant(static_cast<float>(identity::scanRateMilliseconds));
    }
}

PropertyValue valueOf(const SLIKTag& tag, std::uint32_t id) {
    if (!isKnown(id)) {
        return {OPC_E_INVALID_PID, VT_EMPTY, Variant()};
    }
    const VarType type = id == itemValue ? tag.varType() : descriptions[id - 1].type;
    PropertyValue property{S_OK, type, propertyOf(tag, id)};
    OpcValue converted;
    property.error = convert(property.value, type, converted);
    return property;
}

}  // namespace

HResult Properties::available(std::string_view itemId, std::vector<PropertyDescription>& properties) const {
    properties.clear();
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(*items_, itemId, tag); error != S_OK) {
        return error;
    }
    properties.assign(descriptions.begin(), descriptions.end());
    properties[itemValue - 1].type = tag->varType();
    return S_OK;
}

HResult Properties::values(std::string_view itemId, std::span<const std::uint32_t> ids,
                           std::vector<PropertyValue>& properties) const {
    properties.clear();
    if (ids.empty()) {
        return E_INVALIDARG;
    }
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(*items_, itemId, tag); error != S_OK) {
        return error;
    }
    HResult all = S_OK;
    for (const std::uint32_t id : ids) {
        all = properties.emplace_back(valueOf(*tag, id)).error == S_OK ? all : S_FALSE;
    }
    return all;
}

HResult Properties::lookupItemIds(std::string_view itemId, std::span<const std::uint32_t> ids,
                                  std::vector<HResult>& errors) const {
    errors.clear();
    if (ids.empty()) {
        return E_INVALIDARG;
    }
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(*items_, itemId, tag); error != S_OK) {
        return error;
    }
    for (const std::uint32_t id : ids) {
        errors.push_back(isKnown(id) ? E_FAIL : OPC_E_INVALID_PID);
    }
    return S_FALSE;
}

}  // namespace quelm::opcda
