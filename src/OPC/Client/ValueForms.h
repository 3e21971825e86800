#pragma once

// Values, qualities and results as fields of a table.

#include <vector>

#include "OPC/Client/Answer.h"
#include "opcda/client/OpcSession.h"

namespace quelm::opcclient {

using opcda::client::ItemValue;

// Numbers as numbers (null where JSON has none), BOOL as true and false, dates and texts as texts, arrays as arrays,
// nothing as null.
Json jsonOf(const opcda::client::Value& value);

// The columns of a table of readings, and a row of it.
std::vector<Column> readingColumns();
std::vector<Cell> readingRow(const ItemValue& item);

Tone toneOf(std::uint16_t quality);
// A reading that a script should know of: the item failed, or its quality is bad.
bool isTrouble(const ItemValue& item);

// "" and null for success, else the code's name; text: with what it means.
Cell resultCell(HResult result);

}  // namespace quelm::opcclient
