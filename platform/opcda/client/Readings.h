#pragma once

// What the three ways of reading give, as readings of items in the order asked for; the item ids are the caller's to
// add. What a failed item has beside its result is dropped: OPC DA leaves it undefined.

#include <vector>

#include "opcda/client/GroupStubs.h"
#include "opcda/client/OpcSession.h"
#include "opcda/client/Sinks.h"

namespace quelm::opcda::client {

// Items of one call: an answer of as many texts of some length stays well below what the transport takes.
inline constexpr std::size_t itemsPerCall = 5'000;

// Both throw OpcError where the server sent no arrays although the call succeeded.
std::vector<ItemValue> readingsOf(ReadColumns columns);
std::vector<ItemValue> readingsOf(ItemStates states);
ItemValue readingOf(const DataEvent::Item& item);

}  // namespace quelm::opcda::client
