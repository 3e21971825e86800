#pragma once

// How clients of data access 1.0 are told values: as one block of memory in a registered format, which is known by its
// name, because its number is another one on each machine.

#include <cstdint>
#include <optional>

#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "opcda/Callbacks.h"
#include "opcda/Coercion.h"

namespace quelm::opcda::wire {

// A format as a client asks for it.
struct AskedFormat {
    std::optional<Stream> stream;  // none: it is not among the formats
    bool inMemory = false;         // the client takes blocks of memory
};

// An [in] FORMATETC. What it is to be drawn on, which view and which part of it are passed over: streams have neither.
AskedFormat readFormat(dcom::ndr::Reader& in);

// A stream's FORMATETC, which differ only in what its pointer points to, and that.
void writeFormat(dcom::ndr::Writer& out);
void writeFormatName(dcom::ndr::Writer& out, Stream stream);

// A FORMATETC and a STGMEDIUM that say nothing, as the results of a method that has none to give.
void writeNoFormat(dcom::ndr::Writer& out);
void writeNoMedium(dcom::ndr::Writer& out);

// The parameters of IAdviseSink::OnDataChange up to the block's bytes, of which so many must follow.
void writeStreamHead(dcom::ndr::Writer& out, Stream stream, std::size_t size);
// Upper bound of its bytes.
inline constexpr std::size_t streamHeadSize = 256;

// A VARIANT as it stands in the memory of a program of 32 bits, from a multiple of 8 on; behind a text's, the text with
// its length in bytes in front and a NUL behind. Arrays go as VT_EMPTY, as no item is one.
void writeInMemory(dcom::ndr::Writer& out, const OpcValue& value);

}  // namespace quelm::opcda::wire
