#include "opcda/client/Readings.h"

namespace quelm::opcda::client {

namespace {

ItemValue reading(HResult result, Value value, std::uint16_t quality, std::int64_t fileTime) {
    return failed(result) ? ItemValue{{}, {}, 0, 0, result}
                          : ItemValue{{}, std::move(value), quality, fileTime, result};
}

void demand(bool isThere) {
    if (!isThere) {
        throw OpcError("The server answered a read with success, and sent no values");
    }
}

}  // namespace

std::vector<ItemValue> readingsOf(ReadColumns columns) {
    demand(columns.values && columns.qualities && columns.fileTimes && columns.errors);
    std::vector<ItemValue> readings;
    readings.reserve(columns.values->size());
    for (std::size_t i = 0; i < columns.values->size(); ++i) {
        readings.push_back(reading((*columns.errors)[i], std::move((*columns.values)[i]), (*columns.qualities)[i],
                                   (*columns.fileTimes)[i]));
    }
    return readings;
}

std::vector<ItemValue> readingsOf(ItemStates states) {
    demand(states.items && states.errors);
    std::vector<ItemValue> readings;
    readings.reserve(states.items->size());
    for (std::size_t i = 0; i < states.items->size(); ++i) {
        ItemState& state = (*states.items)[i];
        readings.push_back(reading((*states.errors)[i], std::move(state.value), state.quality, state.fileTime));
    }
    return readings;
}

ItemValue readingOf(const DataEvent::Item& item) {
    return reading(item.error, item.value, item.quality, item.fileTime);
}

}  // namespace quelm::opcda::client
