#include "OPC DA/ItemIO.h"

#include <algorithm>

#include "OPC DA/ItemLookup.h"
#include "Shared Types/TimeSource.h"

namespace quelm::opcda {

namespace {

constexpr std::uint32_t anyAge = 0xFFFFFFFF;
constexpr std::int64_t unitsPerMillisecond = 10'000;

bool isFresh(const SLIKTag& tag, std::uint32_t maxAge, std::int64_t now) {
    return maxAge == anyAge || (maxAge != 0 && now - tag.fileTime() <= maxAge * unitsPerMillisecond);
}

// The same conversion to the item's own type as a group's read makes, to know its failure.
void settle(ItemIOReading& reading) {
    OpcValue value;
    reading.error = convert(reading.value, reading.type, value);
    if (reading.error != S_OK) {
        reading.value = Variant();
        reading.quality = qualityBad;
    }
}

}  // namespace

HResult ItemIO::read(std::span<const std::string_view> itemIds, std::span<const std::uint32_t> maxAges,
                     std::vector<ItemIOReading>& readings) {
    readings.clear();
    if (itemIds.empty() || itemIds.size() != maxAges.size()) {
        return E_INVALIDARG;
    }
    readings.resize(itemIds.size());
    const std::int64_t now = timeSource().fileTimeNow();
    std::vector<const SLIKTag*> asked;
    std::vector<std::size_t> askedAt;
    for (std::size_t i = 0; i < itemIds.size(); ++i) {
        const SLIKTag* tag = nullptr;
        ItemIOReading& reading = readings[i];
        reading.error = findItem(control_->items(), itemIds[i], tag);
        if (tag == nullptr) {
            continue;
        }
        reading.type = tag->varType();
        if (isFresh(*tag, maxAges[i], now)) {
            reading.value = tag->Value();
            reading.quality = tag->qualityWord();
            reading.fileTime = tag->fileTime();
            settle(reading);
        } else {
            asked.push_back(tag);
            askedAt.push_back(i);
        }
    }
    readDevice(asked, askedAt, readings);
    const bool allGood =
        std::all_of(readings.begin(), readings.end(), [](const ItemIOReading& each) { return each.error == S_OK; });
    return allGood ? S_OK : S_FALSE;
}

void ItemIO::readDevice(std::span<const SLIKTag* const> asked, std::span<const std::size_t> askedAt,
                        std::vector<ItemIOReading>& readings) {
    control_->deviceRead(asked, [&](std::int32_t error, std::span<const RequestedItem> answers) {
        const auto hostError = static_cast<HResult>(error);
        for (std::size_t i = 0; i < asked.size(); ++i) {
            ItemIOReading& reading = readings[askedAt[i]];
            if (hostError != S_OK || !answers[i].isFilled()) {
                reading.error = hostError != S_OK ? hostError : E_FAIL;
                continue;
            }
            reading.value = answers[i].value();
            reading.quality = answers[i].qualityWord();
            reading.fileTime = answers[i].fileTime();
            settle(reading);
        }
    });
}

HResult ItemIO::writeVQT(std::span<const std::string_view> itemIds, std::vector<HResult>& errors) {
    errors.clear();
    if (itemIds.empty()) {
        return E_INVALIDARG;
    }
    for (const std::string_view itemId : itemIds) {
        const SLIKTag* tag = nullptr;
        errors.push_back(findItem(control_->items(), itemId, tag));
    }
    const auto valid = static_cast<std::size_t>(std::count(errors.begin(), errors.end(), S_OK));
    if (valid > 0) {
        control_->write(valid, [&errors](std::int32_t error) {
            std::replace(errors.begin(), errors.end(), S_OK, static_cast<HResult>(error));
        });
    }
    return std::all_of(errors.begin(), errors.end(), [](HResult error) { return error == S_OK; }) ? S_OK : S_FALSE;
}

}  // namespace quelm::opcda
