#pragma once

// The marshalled form of a VARIANT. Written for every value of every read; of what clients send nothing is kept,
// because no item takes a value, but whatever it is must be passed over safely to find what stands behind it.

#include <vector>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "opcda/Coercion.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

// The body that a VARIANT's referent stands for, aligned to 8.
void writeVariant(dcom::ndr::Writer& out, const OpcValue& value);

// Upper bound of a body's size with padding, in bytes, for values other than texts, decimals and arrays.
inline constexpr std::size_t scalarVariantSize = 32;

// An [out] array of VARIANTs that the callee allocates: pointer, conformance, referents, bodies. A reading has an
// error, a value and the type to deliver it in. behind: bytes of the reply that follow the array.
// Nothing is written and false given when the reply has no room for it.
template <class Reading>
bool writeVariantArray(dcom::ndr::Writer& out, ReplyRoom room, const std::vector<Reading>& readings,
                       std::size_t behind) {
    constexpr std::size_t leastSize = sizeof(std::uint32_t) + scalarVariantSize - 8;
    if (!room.has(behind + readings.size() * leastSize)) {
        return false;
    }
    writeArrayHead(out, readings.size());
    for (std::size_t i = 0; i < readings.size(); ++i) {
        out.pointer();
    }
    for (const Reading& reading : readings) {
        OpcValue value;
        if (reading.error == S_OK) {
            convert(reading.value, reading.type, value);
        }
        writeVariant(out, value);
        if (!room.has(behind)) {
            room.clear();
            return false;
        }
    }
    out.align(4);
    return true;
}

// Passes over a body of any type, with everything that it refers to. What cannot be passed over (records, unknown
// types, contradicting counts) latches the reader's fault.
void skipVariant(dcom::ndr::Reader& in);

// Passes over an [in, size_is(count)] array of VARIANTs: conformance, referents, bodies.
void skipVariantArray(dcom::ndr::Reader& in, std::uint32_t count);

// Passes over an [in, size_is(count)] array of values with quality and time stamp: conformance, structures, and the
// values behind them.
void skipVqtArray(dcom::ndr::Reader& in, std::uint32_t count);

}  // namespace quelm::opcda::wire
