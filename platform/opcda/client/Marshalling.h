#pragma once

// The shapes of parameters that most OPC methods share, from the client's side: counted arrays in, allocated arrays and
// texts out. An array whose length is not what the call demands latches the reader's fault, and so does one that the
// answer does not hold; only then is anything allocated.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/HResult.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "opcda/client/Value.h"

namespace quelm::opcda::client {

// Conformance and elements of an [in, size_is(n)] array.
void writeNumbers(dcom::ndr::Writer& out, std::span<const std::uint32_t> numbers);
void writeTexts(dcom::ndr::Writer& out, std::span<const std::string> texts);
void writeValues(dcom::ndr::Writer& out, std::span<const Value> values);
void writeUuids(dcom::ndr::Writer& out, std::span<const Uuid> uuids);
// Count, conformance and elements.
void writeCounted(dcom::ndr::Writer& out, std::span<const std::uint32_t> numbers);

// A [unique] pointer to a number: the null pointer for nothing.
template <class Number, class WriteOne>
void writeOptional(dcom::ndr::Writer& out, const std::optional<Number>& number, WriteOne writeOne) {
    if (number) {
        out.pointer();
        writeOne(*number);
    } else {
        out.nullPointer();
    }
}

// The head of an [out] array of count elements of at least elementSize bytes each; false: the null pointer.
bool readArrayHead(dcom::ndr::Reader& in, std::size_t count, std::size_t elementSize);

// Such an array.
template <class T, class ReadOne>
std::optional<std::vector<T>> readArray(dcom::ndr::Reader& in, std::size_t count, std::size_t elementSize,
                                        ReadOne readOne) {
    if (!readArrayHead(in, count, elementSize)) {
        return std::nullopt;
    }
    std::vector<T> elements(in.good() ? count : 0);
    for (T& element : elements) {
        element = readOne(in);
    }
    return elements;
}

std::optional<std::vector<std::uint32_t>> readNumbers(dcom::ndr::Reader& in, std::size_t count);
std::optional<std::vector<HResult>> readErrors(dcom::ndr::Reader& in, std::size_t count);
std::optional<std::vector<std::optional<std::string>>> readTexts(dcom::ndr::Reader& in, std::size_t count);
std::optional<std::vector<Value>> readValues(dcom::ndr::Reader& in, std::size_t count);

// A pointer to a text.
std::optional<std::string> readText(dcom::ndr::Reader& in);
// Conformance and bytes of a blob, whose pointer stood before.
std::vector<std::uint8_t> readBlob(dcom::ndr::Reader& in);
// Two halves, aligned to 4.
std::int64_t readFileTime(dcom::ndr::Reader& in);

// The head of the array of an enumerator's Next, whose elements take at least elementSize bytes: how many came, of
// wanted at most. behind the elements stands the same number again: readFetched.
std::uint32_t readVaryingHead(dcom::ndr::Reader& in, std::uint32_t wanted, std::size_t elementSize);
void readFetched(dcom::ndr::Reader& in, std::uint32_t count);

}  // namespace quelm::opcda::client
