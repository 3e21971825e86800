#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

bool readConformance(Reader& in, std::uint32_t count, std::size_t elementSize) {
    const std::uint32_t conformance = in.u32();
    if (conformance != count || count > in.remaining() / elementSize) {
        in.fail();
    }
    return in.good();
}

void readU32Array(Reader& in, std::uint32_t count, std::vector<std::uint32_t>& values) {
    values.clear();
    if (!readConformance(in, count, 4) || count == 0) {
        return;
    }
    values.resize(count);
    std::memcpy(values.data(), in.bytes(std::size_t{count} * 4).data(), std::size_t{count} * 4);
}

void readStringArray(Reader& in, std::uint32_t count, std::vector<std::string>& texts) {
    texts.clear();
    std::vector<std::uint32_t> referents;
    readU32Array(in, count, referents);
    texts.reserve(referents.size());
    for (const std::uint32_t referent : referents) {
        texts.push_back(referent != 0 ? in.wideString() : std::string());
    }
}

void writeArrayHead(Writer& out, std::size_t count) {
    out.pointer();
    out.u32(static_cast<std::uint32_t>(count));
}

namespace {

template <class Word>
void writeWords(Writer& out, std::span<const Word> values) {
    static_assert(sizeof(Word) == 4);
    writeArrayHead(out, values.size());
    if (!values.empty()) {
        std::memcpy(out.extend(values.size_bytes()), values.data(), values.size_bytes());
    }
}

}  // namespace

void writeU32Array(Writer& out, std::span<const std::uint32_t> values) {
    writeWords(out, values);
}

void writeErrors(Writer& out, HResult result, std::span<const HResult> errors) {
    if (failed(result)) {
        out.nullPointer();
    } else {
        writeWords(out, errors);
    }
    out.hresult(result);
}

void writeString(Writer& out, std::string_view utf8) {
    out.pointer();
    out.wideString(utf8);
}

void writeStringOrNull(Writer& out, HResult result, std::string_view utf8) {
    if (failed(result)) {
        out.nullPointer();
    } else {
        writeString(out, utf8);
    }
}

Fault writeNoInterface(Writer& out, HResult result) {
    out.nullPointer();
    out.hresult(result);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
