#include "opcda/client/Columns.h"

#include "opcda/client/Marshalling.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

ReadColumns readColumns(Reader& in, std::size_t count) {
    ReadColumns columns;
    columns.values = readValues(in, count);
    columns.qualities =
        readArray<std::uint16_t>(in, count, sizeof(std::uint16_t), [](Reader& each) { return each.u16(); });
    columns.fileTimes = readArray<std::int64_t>(in, count, sizeof(std::int64_t), readFileTime);
    columns.errors = readErrors(in, count);
    return columns;
}

// The values stand behind all the structures.
void writeVqts(Writer& out, std::span<const ValueToWrite> values) {
    out.u32(static_cast<std::uint32_t>(values.size()));
    for (const ValueToWrite& each : values) {
        const auto fileTime = static_cast<std::uint64_t>(each.fileTime.value_or(0));
        out.pointer();
        out.u32(each.quality ? 1 : 0);
        out.u16(each.quality.value_or(0));
        out.u16(0);  // reserved
        out.u32(each.fileTime ? 1 : 0);
        out.u32(0);  // reserved
        out.u32(static_cast<std::uint32_t>(fileTime));
        out.u32(static_cast<std::uint32_t>(fileTime >> 32U));
    }
    for (const ValueToWrite& each : values) {
        writeValue(out, each.value);
    }
    out.align(4);
}

}  // namespace quelm::opcda::client
