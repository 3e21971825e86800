#include "opcda/Properties.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "opcda/ItemLookup.h"
#include "slikda/Identity.h"

namespace quelm::opcda {

namespace {

// Days since 1899-12-30 in UTC; Empty for an item without a time stamp.
Variant utcDate(std::int64_t fileTime) {
    constexpr double unitsPerDay = 864'000'000'000;
    constexpr double fileTimeEpoch = -109205;
    return fileTime == 0 ? Variant() : Variant(Date{static_cast<double>(fileTime) / unitsPerDay + fileTimeEpoch});
}

// An item as the device gave it.
struct Reading {
    const SLIKTag* tag;
    HResult error = S_OK;  // it gave nothing
    Variant value{};
    std::uint16_t quality = 0;
    std::int64_t fileTime = 0;
};

// What every item has.
struct FixedProperty {
    PropertyDescription description;  // VT_EMPTY: its type is the item's
    bool isRead;                      // from the device
    Variant (*valueOf)(const Reading& item);
};

constexpr std::array fixedProperties{
    FixedProperty{{1, "Item Canonical DataType", VT_I2},
                  false,
                  [](const Reading& item) { return Variant(static_cast<std::int16_t>(item.tag->varType())); }},
    FixedProperty{{2, "Item Value", VT_EMPTY}, true, [](const Reading& item) { return item.value; }},
    FixedProperty{{3, "Item Quality", VT_I2},
                  true,
                  [](const Reading& item) { return Variant(static_cast<std::int16_t>(item.quality)); }},
    FixedProperty{{4, "Item Timestamp", VT_DATE}, true, [](const Reading& item) { return utcDate(item.fileTime); }},
    FixedProperty{{5, "Item Access Rights", VT_I4},
                  false,
                  [](const Reading& item) { return Variant(static_cast<std::int32_t>(item.tag->accessRights())); }},
    FixedProperty{{6, "Server Scan Rate", VT_R4},
                  false,
                  [](const Reading& /*item*/) { return Variant(static_cast<float>(identity::scanRateMilliseconds)); }},
    // No item has a range or named states.
    FixedProperty{{7, "Item EU Type", VT_I4}, false, [](const Reading& /*item*/) { return Variant(std::int32_t{0}); }},
};

// A property that an item has: one that every item has, or one of those that the plant says of it.
struct Property {
    PropertyDescription description;
    const FixedProperty* fixed = nullptr;
    std::size_t detail = 0;  // place among the item's details; of no meaning for a fixed one

    bool isRead() const { return fixed != nullptr && fixed->isRead; }
    Variant valueOf(const Reading& item) const {
        return fixed != nullptr ? fixed->valueOf(item) : item.tag->detail(detail);
    }
};

Property propertyOf(const SLIKTag& tag, const FixedProperty& fixed) {
    Property property{fixed.description, &fixed};
    if (property.description.type == VT_EMPTY) {
        property.description.type = tag.varType();
    }
    return property;
}

Property propertyOf(const SLIKTag& tag, std::size_t detail) {
    const ItemDetails::Kind& kind = tag.detailKinds()[detail];
    return {{kind.property, kind.text, kind.isText ? VT_BSTR : VT_I4}, nullptr, detail};
}

template <class Take>
void forEachProperty(const SLIKTag& tag, Take&& take) {
    for (const FixedProperty& fixed : fixedProperties) {
        take(propertyOf(tag, fixed));
    }
    for (std::size_t detail = 0; detail < tag.detailKinds().size(); ++detail) {
        if (tag.hasDetail(detail)) {
            take(propertyOf(tag, detail));
        }
    }
}

// Nothing: the item has none of this number.
std::optional<Property> find(const SLIKTag& tag, std::uint32_t id) {
    const auto fixed = std::find_if(fixedProperties.begin(), fixedProperties.end(),
                                    [id](const FixedProperty& each) { return each.description.id == id; });
    if (fixed != fixedProperties.end()) {
        return propertyOf(tag, *fixed);
    }
    const std::vector<ItemDetails::Kind>& kinds = tag.detailKinds();
    const auto kind =
        std::find_if(kinds.begin(), kinds.end(), [id](const ItemDetails::Kind& each) { return each.property == id; });
    const auto detail = static_cast<std::size_t>(kind - kinds.begin());
    return kind != kinds.end() && tag.hasDetail(detail) ? std::optional(propertyOf(tag, detail)) : std::nullopt;
}

PropertyValue valueOf(const Reading& item, const Property& property) {
    if (property.isRead() && item.error != S_OK) {
        return {item.error, VT_EMPTY, Variant()};
    }
    PropertyValue value{S_OK, property.description.type, property.valueOf(item)};
    if (value.value.isEmpty() && (property.fixed == nullptr || property.fixed->description.type != VT_EMPTY)) {
        return {E_FAIL, VT_EMPTY, Variant()};  // no time stamp
    }
    OpcValue converted;
    value.error = convert(value.value, value.type, converted);
    return value;
}

PropertyValue valueOf(const Reading& item, std::uint32_t id) {
    const std::optional<Property> property = find(*item.tag, id);
    return property ? valueOf(item, *property) : PropertyValue{OPC_E_INVALID_PID, VT_EMPTY, Variant()};
}

// The quality is what a read shows, which depends on the value.
Reading shown(Reading reading) {
    OpcValue value;
    present(reading.value, reading.tag->varType(), reading.quality, value);
    return reading;
}

Reading readingOf(const SLIKTag& tag, HResult error, std::span<const RequestedItem> answers) {
    if (error != S_OK || !answers[0].isFilled()) {
        return {&tag, error != S_OK ? error : E_FAIL};
    }
    return shown({&tag, S_OK, answers[0].value(), answers[0].qualityWord(), answers[0].fileTime()});
}

Reading cached(const SLIKTag& tag) {
    return isReadable(tag) ? shown({&tag, S_OK, tag.Value(), tag.qualityWord(), tag.fileTime()})
                           : Reading{&tag, OPC_E_BADRIGHTS};
}

void tell(const Reading& item, std::span<const std::uint32_t> ids, const Properties::ValuesDone& done) {
    std::vector<PropertyValue> found;
    HResult all = S_OK;
    for (const std::uint32_t id : ids) {
        all = found.emplace_back(valueOf(item, id)).error == S_OK ? all : S_FALSE;
    }
    done(all, found);
}

// item: nullptr: without its value.
ItemProperty describe(const Reading* item, const Property& property) {
    ItemProperty described{S_OK, property.description, Variant()};
    if (item != nullptr) {
        PropertyValue its = valueOf(*item, property);
        described.error = its.error;
        described.value = std::move(its.value);
    }
    return described;
}

}  // namespace

HResult Properties::available(std::string_view itemId, std::vector<PropertyDescription>& described) const {
    described.clear();
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(plant_.items(), itemId, tag); error != S_OK) {
        return error;
    }
    forEachProperty(*tag, [&described](const Property& property) { described.push_back(property.description); });
    return S_OK;
}

void Properties::values(std::string_view itemId, std::span<const std::uint32_t> ids, ValuesDone done) const {
    const SLIKTag* tag = nullptr;
    if (const HResult error = ids.empty() ? E_INVALIDARG : findItem(plant_.items(), itemId, tag); error != S_OK) {
        done(error, {});
        return;
    }
    const bool isRead = std::any_of(ids.begin(), ids.end(), [tag](std::uint32_t id) {
        const std::optional<Property> property = find(*tag, id);
        return property && property->isRead();
    });
    if (!isRead || !isReadable(*tag)) {
        tell({tag, OPC_E_BADRIGHTS}, ids, done);
        return;
    }
    const SLIKTag* const asks[] = {tag};
    plant_.read(asks, [tag, asked = std::vector(ids.begin(), ids.end()), done = std::move(done)](
                          HResult error, std::span<const RequestedItem> answers) {
        tell(readingOf(*tag, error, answers), asked, done);
    });
}

HResult Properties::lookupItemIds(std::string_view itemId, std::span<const std::uint32_t> ids,
                                  std::vector<HResult>& errors) const {
    errors.clear();
    if (ids.empty()) {
        return E_INVALIDARG;
    }
    const SLIKTag* tag = nullptr;
    if (const HResult error = findItem(plant_.items(), itemId, tag); error != S_OK) {
        return error;
    }
    for (const std::uint32_t id : ids) {
        const std::optional<Property> property = find(*tag, id);
        errors.push_back(property && property->fixed == nullptr ? E_FAIL : OPC_E_INVALID_PID);
    }
    return S_FALSE;
}

HResult Properties::ofItem(const SLIKTag& tag, std::span<const std::uint32_t> ids, bool withValues,
                           std::vector<ItemProperty>& found) {
    found.clear();
    const std::optional<Reading> reading = withValues ? std::optional<Reading>(cached(tag)) : std::nullopt;
    const Reading* const item = reading ? &*reading : nullptr;
    if (ids.empty()) {
        forEachProperty(tag, [&](const Property& property) { found.push_back(describe(item, property)); });
    }
    for (const std::uint32_t id : ids) {
        const std::optional<Property> property = find(tag, id);
        found.push_back(property ? describe(item, *property)
                                 : ItemProperty{OPC_E_INVALID_PID, {id, {}, VT_EMPTY}, Variant()});
    }
    const bool allGood =
        std::all_of(found.begin(), found.end(), [](const ItemProperty& each) { return each.error == S_OK; });
    return allGood ? S_OK : S_FALSE;
}

}  // namespace quelm::opcda
