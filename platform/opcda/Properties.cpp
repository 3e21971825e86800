#include "opcda/Properties.h"

#include <algorithm>
#include <array>

#include "opcda/ItemLookup.h"
#include "slikda/Identity.h"

namespace quelm::opcda {

namespace {

// Days since 1899-12-30 in UTC; an item without a time stamp has no value here.
Variant utcDate(std::int64_t fileTime) {
    constexpr double unitsPerDay = 864'000'000'000;
    constexpr double fileTimeEpoch = -109205;
    return fileTime == 0 ? Variant() : Variant(Date{static_cast<double>(fileTime) / unitsPerDay + fileTimeEpoch});
}

struct Property {
    PropertyDescription description;  // VT_EMPTY: its type is the item's
    Variant (*valueOf)(const SLIKTag& tag);
};

constexpr std::array properties{
    Property{{1, "Item Canonical DataType", VT_I2},
             [](const SLIKTag& tag) { return Variant(static_cast<std::int16_t>(tag.varType())); }},
    Property{{2, "Item Value", VT_EMPTY}, [](const SLIKTag& tag) { return tag.Value(); }},
    Property{{3, "Item Quality", VT_I2},
             [](const SLIKTag& tag) { return Variant(static_cast<std::int16_t>(tag.qualityWord())); }},
    Property{{4, "Item Timestamp", VT_DATE}, [](const SLIKTag& tag) { return utcDate(tag.fileTime()); }},
    Property{{5, "Item Access Rights", VT_I4},
             [](const SLIKTag& tag) { return Variant(static_cast<std::int32_t>(tag.accessRights())); }},
    Property{{6, "Server Scan Rate", VT_R4},
             [](const SLIKTag& /*tag*/) { return Variant(static_cast<float>(identity::scanRateMilliseconds)); }},
};

// nullptr: there is none of this number.
const Property* find(std::uint32_t id) {
    const auto found = std::find_if(properties.begin(), properties.end(),
                                    [id](const Property& property) { return property.description.id == id; });
    return found == properties.end() ? nullptr : &*found;
}

PropertyDescription describe(const Property& property, const SLIKTag& tag) {
    PropertyDescription description = property.description;
    if (description.type == VT_EMPTY) {
        description.type = tag.varType();
    }
    return description;
}

PropertyValue valueOf(const SLIKTag& tag, std::uint32_t id) {
    const Property* const property = find(id);
    if (property == nullptr) {
        return {OPC_E_INVALID_PID, VT_EMPTY, Variant()};
    }
    PropertyValue value{S_OK, describe(*property, tag).type, property->valueOf(tag)};
    OpcValue converted;
    value.error = convert(value.value, value.type, converted);
    return value;
}

}  // namespace

HResult Properties::available(std::string_view itemId, std::vector<PropertyDescription>& described) const {
    described.clear();
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(*items_, itemId, tag); error != S_OK) {
        return error;
    }
    for (const Property& property : properties) {
        described.push_back(describe(property, *tag));
    }
    return S_OK;
}

HResult Properties::values(std::string_view itemId, std::span<const std::uint32_t> ids,
                           std::vector<PropertyValue>& found) const {
    found.clear();
    if (ids.empty()) {
        return E_INVALIDARG;
    }
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(*items_, itemId, tag); error != S_OK) {
        return error;
    }
    HResult all = S_OK;
    for (const std::uint32_t id : ids) {
        all = found.emplace_back(valueOf(*tag, id)).error == S_OK ? all : S_FALSE;
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
        errors.push_back(find(id) != nullptr ? E_FAIL : OPC_E_INVALID_PID);
    }
    return S_FALSE;
}

}  // namespace quelm::opcda
