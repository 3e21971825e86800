#include "opcda/ItemIO.h"

#include <algorithm>

#include "base/Quality.h"
#include "base/TimeSource.h"
#include "opcda/Age.h"
#include "opcda/ItemLookup.h"

namespace quelm::opcda {

namespace {

// The same conversion to the item's own type as a group's read makes, to know its failure.
void settle(ItemIOReading& reading) {
    OpcValue value;
    reading.error = present(reading.value, reading.type, reading.quality, value);
    if (reading.error != S_OK) {
        reading.value = Variant();
    }
}

HResult resultOf(const std::vector<ItemIOReading>& readings) {
    const bool allGood =
        std::all_of(readings.begin(), readings.end(), [](const ItemIOReading& each) { return each.error == S_OK; });
    return allGood ? S_OK : S_FALSE;
}

void take(const RequestedItem& answer, ItemIOReading& reading) {
    if (!answer.isFilled()) {
        reading.error = E_FAIL;
        return;
    }
    reading.value = answer.value();
    reading.quality = answer.qualityWord();
    reading.fileTime = answer.fileTime();
    settle(reading);
}

}  // namespace

bool ItemIO::readCache(std::span<const std::string_view> itemIds, std::span<const std::uint32_t> maxAges,
                       std::vector<ItemIOReading>& readings, HResult& result) const {
    readings.clear();
    if (itemIds.empty() || itemIds.size() != maxAges.size()) {
        result = E_INVALIDARG;
        return true;
    }
    readings.resize(itemIds.size());
    const std::int64_t now = timeSource().fileTimeNow();
    bool isWhole = true;
    for (std::size_t i = 0; i < itemIds.size(); ++i) {
        const SLIKTag* tag = nullptr;
        ItemIOReading& reading = readings[i];
        reading.error = findItem(plant_.items(), itemIds[i], tag);
        if (tag == nullptr || !isReadable(*tag)) {
            reading.error = tag == nullptr ? reading.error : OPC_E_BADRIGHTS;
            continue;
        }
        reading.type = tag->varType();
        if (isYoungEnough(tag->fileTime(), maxAges[i], now)) {
            reading.value = tag->Value();
            reading.quality = tag->qualityWord();
            reading.fileTime = tag->fileTime();
            settle(reading);
        } else {
            reading.asked = tag;
            isWhole = false;
        }
    }
    result = resultOf(readings);
    return isWhole;
}

void ItemIO::readDevice(std::vector<ItemIOReading> readings, ReadDone done) {
    std::vector<const SLIKTag*> asked;
    for (const ItemIOReading& reading : readings) {
        if (reading.asked != nullptr) {
            asked.push_back(reading.asked);
        }
    }
    plant_.read(asked, [readings = std::move(readings), done = std::move(done)](
                           HResult error, std::span<const RequestedItem> answers) mutable {
        std::size_t next = 0;
        for (ItemIOReading& reading : readings) {
            if (reading.asked != nullptr && error != S_OK) {
                reading.error = error;
            } else if (reading.asked != nullptr) {
                take(answers[next++], reading);
            }
        }
        done(resultOf(readings), readings);
    });
}

void ItemIO::writeVQT(std::span<const std::string_view> itemIds, WriteDone done) {
    std::vector<HResult> errors;
    for (const std::string_view itemId : itemIds) {
        const SLIKTag* tag = nullptr;
        errors.push_back(findItem(plant_.items(), itemId, tag));
    }
    const auto valid = static_cast<std::size_t>(std::count(errors.begin(), errors.end(), S_OK));
    plant_.write(valid, [errors = std::move(errors), done = std::move(done)](HResult error) mutable {
        std::replace(errors.begin(), errors.end(), S_OK, error);
        const bool allGood = std::all_of(errors.begin(), errors.end(), [](HResult each) { return each == S_OK; });
        done(errors.empty() ? E_INVALIDARG : allGood ? S_OK : S_FALSE, errors);
    });
}

}  // namespace quelm::opcda
