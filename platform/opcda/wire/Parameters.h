#pragma once

// The shapes of parameters that most OPC methods share: counted arrays in, allocated arrays and texts out.
// Every count is held against what is left of the stub before anything is allocated by it.

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/HResult.h"
#include "dcom/Fault.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ndr/Writer.h"
#include "opcda/HResults.h"

namespace quelm::opcda::wire {

// How large the reply of one call may become: a call that asks for more is refused as a whole (E_OUTOFMEMORY), so that
// no client can make the server run out of memory for all the others.
class ReplyRoom {
 public:
    // Bytes (a million numbers), whatever the client's budget.
    static constexpr std::size_t largest = 64U << 20U;
    // Even a client that has used up its budget is told so, and may let go of what it holds.
    static constexpr std::size_t least = 64U << 10U;

    // From here on. memoryLeft: bytes that the client's budget has left.
    ReplyRoom(dcom::ndr::Writer& out, std::size_t memoryLeft)
        : out_(out), start_(out.buffer().size()), limit_(std::clamp(memoryLeft, least, largest)) {}

    // Whether so many bytes more may follow what was written.
    bool has(std::size_t bytes) const {
        const std::size_t written = out_.buffer().size() - start_;
        return written <= limit_ && bytes <= limit_ - written;
    }
    // Takes back what was written.
    void clear() { out_.buffer().resize(start_); }

 private:
    dcom::ndr::Writer& out_;
    std::size_t start_;
    std::size_t limit_;
};

// Properties that one call may ask for. An item has a dozen; who asks for each of them many times is served all the
// same.
inline constexpr std::uint32_t mostPropertyIds = 1000;

// The elements of an [in, size_is(count)] array of 32-bit values, behind its conformance. A conformance that
// contradicts the count latches the reader's fault. The vector's room is reused.
void readU32Array(dcom::ndr::Reader& in, std::uint32_t count, std::vector<std::uint32_t>& values);

// The conformance of an [in, size_is(count)] array whose elements take at least elementSize bytes each; latches the
// reader's fault when it contradicts the count or what is left of the stub. True when count elements may be read.
bool readConformance(dcom::ndr::Reader& in, std::uint32_t count, std::size_t elementSize);

// An [in, size_is(count)] array of unique text pointers, the texts behind all pointers; a null pointer is empty text.
void readStringArray(dcom::ndr::Reader& in, std::uint32_t count, std::vector<std::string>& texts);

// An [out] array that the callee allocates: pointer, conformance, elements. The null pointer stands for an array that
// does not exist, as after a failed call.
void writeU32Array(dcom::ndr::Writer& out, std::span<const std::uint32_t> values);

// Pointer and conformance of such an array; the elements must follow.
void writeArrayHead(dcom::ndr::Writer& out, std::size_t count);

// The end of most calls: one result for each item, or the null pointer when the whole call failed, and its result.
void writeErrors(dcom::ndr::Writer& out, HResult result, std::span<const HResult> errors);

// Whether a read's reply has a value of any item: only that is data sent to the client.
inline bool hasData(std::span<const HResult> errors) {
    return std::find(errors.begin(), errors.end(), S_OK) != errors.end();
}

// An [out, string] LPWSTR*.
void writeString(dcom::ndr::Writer& out, std::string_view utf8);

// The same; the null pointer when the call failed and there is no text.
void writeStringOrNull(dcom::ndr::Writer& out, HResult result, std::string_view utf8);

// An [out] interface pointer of a call that failed, and the call's result. Gives Fault::None, the call being answered.
dcom::Fault writeNoInterface(dcom::ndr::Writer& out, HResult result);

// Stores a little-endian value at a place in a reply and gives the place behind it.
template <class T>
std::uint8_t* put(std::uint8_t* at, T value) {
    std::memcpy(at, &value, sizeof value);
    return at + sizeof value;
}

}  // namespace quelm::opcda::wire
