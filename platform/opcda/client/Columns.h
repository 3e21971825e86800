#pragma once

// What reads by maximum age give and writes with quality and time stamp take, of groups and of single items alike.

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/HResult.h"
#include "opcda/client/Value.h"

namespace quelm::opcda::client {

// Maximum ages in milliseconds; 0 asks the device, fromCache takes whatever the server has.
inline constexpr std::uint32_t fromDevice = 0;
inline constexpr std::uint32_t fromCache = 0xFFFFFFFF;

// Four arrays of one length, each nothing where the server sent none. Time stamps: UTC, 100-nanosecond units since
// 1601-01-01.
struct ReadColumns {
    std::optional<std::vector<Value>> values;
    std::optional<std::vector<std::uint16_t>> qualities;
    std::optional<std::vector<std::int64_t>> fileTimes;
    std::optional<std::vector<HResult>> errors;
};

// A value to write, with a quality and a time stamp where these are to be written too.
struct ValueToWrite {
    Value value;
    std::optional<std::uint16_t> quality;
    std::optional<std::int64_t> fileTime;
};

// The columns of count items in an answer.
ReadColumns readColumns(dcom::ndr::Reader& in, std::size_t count);
// An array of values to write, with its conformance.
void writeVqts(dcom::ndr::Writer& out, std::span<const ValueToWrite> values);

}  // namespace quelm::opcda::client
