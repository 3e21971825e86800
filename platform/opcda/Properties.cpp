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

struct Property {
    PropertyDescription description;  // VT_EMPTY: its type is the item's
    bool isRead;                      // from the device
    Variant (*valueOf)(const Reading& item);
};

constexpr std::array properties{
    Property{{1, "Item Canonical DataType", VT_I2},
             false,
             [](const Reading& item) { return Variant(static_cast<std::int16_t>(item.tag->varType())); }},
    Property{{2, "Item Value", VT_EMPTY}, true, [](const Reading& item) { return item.value; }},
    Property{{3, "Item Quality", VT_I2},
             true,
             [](const Reading& item) { return Variant(static_cast<std::int16_t>(item.quality)); }},
    Property{{4, "Item Timestamp", VT_DATE}, true, [](const Reading& item) { return utcDate(item.fileTime); }},
    Property{{5, "Item Access Rights", VT_I4},
             false,
             [](const Reading& item) { return Variant(static_cast<std::int32_t>(item.tag->accessRights())); }},
    Property{{6, "Server Scan Rate", VT_R4},
             false,
             [](const Reading& /*item*/) { return Variant(static_cast<float>(identity::scanRateMilliseconds)); }},
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

PropertyValue valueOf(const Reading& item, const Property& property) {
    if (property.isRead && item.error != S_OK) {
        return {item.error, VT_EMPTY, Variant()};
    }
    PropertyValue value{S_OK, describe(property, *item.tag).type, property.valueOf(item)};
    if (value.value.isEmpty() && property.description.type != VT_EMPTY) {
        return {E_FAIL, VT_EMPTY, Variant()};  // no time stamp
    }
    OpcValue converted;
    value.error = convert(value.value, value.type, converted);
    return value;
}

PropertyValue valueOf(const Reading& item, std::uint32_t id) {
    const Property* const property = find(id);
    return property != nullptr ? valueOf(item, *property) : PropertyValue{OPC_E_INVALID_PID, VT_EMPTY, Variant()};
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
ItemProperty describe(const SLIKTag& tag, const Reading* item, const Property& property) {
    ItemProperty described{S_OK, describe(property, tag), Variant()};
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
    for (const Property& property : properties) {
        described.push_back(describe(property, *tag));
    }
    return S_OK;
}

void Properties::values(std::string_view itemId, std::span<const std::uint32_t> ids, ValuesDone done) const {
    const SLIKTag* tag = nullptr;
    if (const HResult error = ids.empty() ? E_INVALIDARG : findItem(plant_.items(), itemId, tag); error != S_OK) {
        done(error, {});
        return;
    }
    const bool isRead = std::any_of(ids.begin(), ids.end(), [](std::uint32_t id) {
        const Property* const property = find(id);
        return property != nullptr && property->isRead;
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
    errors.assign(ids.size(), OPC_E_INVALID_PID);
    return S_FALSE;
}

HResult Properties::ofItem(const SLIKTag& tag, std::span<const std::uint32_t> ids, bool withValues,
                           std::vector<ItemProperty>& found) {
    found.clear();
    const std::optional<Reading> reading = withValues ? std::optional<Reading>(cached(tag)) : std::nullopt;
    const Reading* const item = reading ? &*reading : nullptr;
    if (ids.empty()) {
        for (const Property& property : properties) {
            found.push_back(describe(tag, item, property));
        }
    }
    for (const std::uint32_t id : ids) {
        const Property* const property = find(id);
        found.push_back(property != nullptr ? describe(tag, item, *property)
                                            : ItemProperty{OPC_E_INVALID_PID, {id, {}, VT_EMPTY}, Variant()});
    }
    const bool allGood =
        std::all_of(found.begin(), found.end(), [](const ItemProperty& each) { return each.error == S_OK; });
    return allGood ? S_OK : S_FALSE;
}

}  // namespace quelm::opcda
