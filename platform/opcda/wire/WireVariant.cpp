#include "opcda/wire/WireVariant.h"

#include "opcda/wire/VariantForm.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

// Types that only clients send.
constexpr VarType VT_DISPATCH = 9;
constexpr VarType VT_VARIANT = 12;
constexpr VarType VT_UNKNOWN = 13;
constexpr std::size_t headSize = 20;  // up to and including the discriminant

// Starts a body of so many bytes, head included, all zero behind the head.
std::uint8_t* openBody(Writer& out, std::size_t size, VarType type, std::uint32_t discriminant) {
    const std::size_t padding = (0 - out.position()) & 7;
    std::uint8_t* const body = out.extend(padding + size) + padding;
    put(body, static_cast<std::uint32_t>((size + 7) / 8));
    put(body + 8, type);
    put(body + 16, discriminant);
    return body;
}

void writeSmall(Writer& out, VarType type, std::uint32_t bits) {
    put(openBody(out, headSize + 4, type, type) + headSize, bits);
}

template <class T>
void writeLarge(Writer& out, VarType type, T value) {
    put(openBody(out, headSize + 4 + 8, type, type) + headSize + 4, value);
}

// The size in units of 8 bytes of a body whose size was not known when it was started.
void patchSize(Writer& out, std::size_t start) {
    out.patchU32(start, static_cast<std::uint32_t>((out.position() - start + 7) / 8));
}

// A text without its NUL behind conformance, length in bytes and length in words. It has as many counts as a string
// parameter, only others.
void writeTextBlob(Writer& out, std::string_view utf8) {
    out.align(4);
    const std::size_t counts = out.position();
    out.wideString(utf8);
    out.buffer().resize(out.buffer().size() - 2);
    const auto words = static_cast<std::uint32_t>((out.position() - counts - 12) / 2);
    out.patchU32(counts, words);
    out.patchU32(counts + 4, words * 2);
    out.patchU32(counts + 8, words);
}

void writeText(Writer& out, std::string_view utf8) {
    openBody(out, headSize, VT_BSTR, VT_BSTR);
    const std::size_t start = out.position() - headSize;
    out.pointer();
    writeTextBlob(out, utf8);
    patchSize(out, start);
}

void writeTexts(Writer& out, std::span<const std::string> texts) {
    openBody(out, headSize, VT_BSTR_ARRAY, VT_ARRAY);
    const std::size_t start = out.position() - headSize;
    const auto count = static_cast<std::uint32_t>(texts.size());
    out.pointer();
    out.pointer();
    out.u32(1);  // dimensions, as conformance and as field
    out.u16(1);
    out.u16(featureHaveType | featureTexts);
    out.u32(4);                             // an element is a pointer
    out.u32(std::uint32_t{VT_BSTR} << 16);  // no locks, and the type in the free half
    out.u32(OfTexts);
    out.u32(count);
    out.pointer();
    out.u32(count);
    out.u32(0);  // lower bound
    out.u32(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        out.pointer();
    }
    for (const std::string& text : texts) {
        writeTextBlob(out, text);
    }
    patchSize(out, start);
}

void writeDecimal(Writer& out, const Decimal& value) {
    std::uint8_t* at = openBody(out, headSize + 4 + 16, VT_DECIMAL, VT_DECIMAL) + headSize + 4;
    at = put(at, std::uint16_t{0});
    at = put(at, value.scale);
    at = put(at, static_cast<std::uint8_t>(value.negative ? 0x80 : 0));
    at = put(at, value.high);
    put(at, value.low);
}

void skipBody(Reader& in, int depth);

void skipAligned(Reader& in, std::size_t size, std::size_t count = 1) {
    in.align(size);
    if (count > in.remaining() / size) {
        in.fail();
        return;
    }
    in.bytes(count * size);
}

void skipTextBlob(Reader& in) {
    const std::uint32_t conformance = in.u32();
    in.u32();  // length in bytes
    if (in.u32() != conformance) {
        in.fail();
        return;
    }
    skipAligned(in, 2, conformance);
}

void skipInterfacePointer(Reader& in) {
    const std::uint32_t conformance = in.u32();
    if (in.u32() != conformance) {
        in.fail();
        return;
    }
    in.bytes(conformance);
}

// An array of pointers and then what those that aren't null point to.
template <class SkipOne>
void skipPointers(Reader& in, std::uint32_t count, SkipOne skipOne) {
    in.align(4);
    if (count > in.remaining() / 4) {
        in.fail();
        return;
    }
    Reader referents(in.bytes(std::size_t{count} * 4));
    for (std::uint32_t i = 0; i < count && in.good(); ++i) {
        if (referents.pointer()) {
            skipOne(in);
        }
    }
}

void skipElements(Reader& in, std::uint32_t kind, std::uint32_t count, int depth) {
    switch (kind) {
        case OfBytes:
            return skipAligned(in, 1, count);
        case OfShorts:
            return skipAligned(in, 2, count);
        case OfLongs:
            return skipAligned(in, 4, count);
        case OfHypers:
            return skipAligned(in, 8, count);
        case OfTexts:
            return skipPointers(in, count, skipTextBlob);
        case OfVariants:
            return skipPointers(in, count, [depth](Reader& inner) { skipBody(inner, depth + 1); });
        case OfDispatches:
        case OfUnknowns:
        case OfInterfaces:
            return skipPointers(in, count, skipInterfacePointer);
        default:
            return in.fail();
    }
}

void skipArray(Reader& in, int depth) {
    if (!in.pointer() || !in.pointer()) {
        return;
    }
    const std::uint32_t dimensions = in.u32();
    if (in.u16() != dimensions) {
        in.fail();
        return;
    }
    in.u16();  // features
    in.u32();  // size of an element
    in.u32();  // locks
    const std::uint32_t kind = in.u32();
    const std::uint32_t count = in.u32();
    const bool hasElements = in.pointer();
    if (kind == OfInterfaces) {
        in.uuid();
    }
    skipAligned(in, 4, std::size_t{dimensions} * 2);
    if (!hasElements || !in.good()) {
        return;
    }
    if (in.u32() != count) {
        in.fail();
        return;
    }
    skipElements(in, kind, count, depth);
}

// The union's arm, and what its pointers refer to.
void skipValue(Reader& in, std::uint32_t type, int depth) {
    switch (type) {
        case VT_EMPTY:
        case VT_NULL:
            return;
        case VT_I1:
        case VT_UI1:
            return skipAligned(in, 1);
        case VT_I2:
        case VT_UI2:
        case VT_BOOL:
            return skipAligned(in, 2);
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT:
        case VT_R4:
        case VT_ERROR:
            return skipAligned(in, 4);
        case VT_I8:
        case VT_UI8:
        case VT_R8:
        case VT_CY:
        case VT_DATE:
            return skipAligned(in, 8);
        case VT_DECIMAL:
            return skipAligned(in, 8, 2);
        case VT_BSTR:
            return in.pointer() ? skipTextBlob(in) : void();
        case VT_DISPATCH:
        case VT_UNKNOWN:
            return in.pointer() ? skipInterfacePointer(in) : void();
        case VT_VARIANT:
            return in.pointer() ? skipBody(in, depth + 1) : void();
        case VT_ARRAY:
            return skipArray(in, depth);
        default:
            return in.fail();
    }
}

void skipBody(Reader& in, int depth) {
    if (depth > deepestVariant) {
        in.fail();
        return;
    }
    in.align(8);
    in.u32();     // size
    in.u32();     // reserved
    in.u16();     // type, which the discriminant repeats
    in.bytes(6);  // reserved
    const std::uint32_t type = in.u32();
    if (!in.good()) {
        return;
    }
    if ((type & VT_BYREF) == 0) {
        skipValue(in, type, depth);
    } else if (in.pointer()) {
        skipValue(in, type & ~std::uint32_t{VT_BYREF}, depth);
    }
}

}  // namespace

void writeVariant(Writer& out, const OpcValue& value) {
    switch (value.type) {
        case VT_R4: {
            std::uint32_t bits = 0;
            std::memcpy(&bits, &value.single, sizeof bits);
            return writeSmall(out, VT_R4, bits);
        }
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT:
        case VT_ERROR:
            return writeSmall(out, value.type, static_cast<std::uint32_t>(value.integer));
        case VT_R8:
        case VT_DATE:
            return writeLarge(out, value.type, value.real);
        case VT_BSTR:
            return writeText(out, value.text);
        case VT_BOOL:
        case VT_I2:
        case VT_UI2:
            return writeSmall(out, value.type, static_cast<std::uint16_t>(value.integer));
        case VT_I1:
        case VT_UI1:
            return writeSmall(out, value.type, static_cast<std::uint8_t>(value.integer));
        case VT_I8:
        case VT_UI8:
        case VT_CY:
            return writeLarge(out, value.type, value.integer);
        case VT_DECIMAL:
            return writeDecimal(out, value.decimal);
        case VT_BSTR_ARRAY:
            return writeTexts(out, value.texts);
        case VT_NULL:
            openBody(out, headSize, VT_NULL, VT_NULL);
            return;
        default:
            openBody(out, headSize, VT_EMPTY, VT_EMPTY);
            return;
    }
}

void skipVariant(Reader& in) {
    skipBody(in, 0);
}

void skipVariantArray(Reader& in, std::uint32_t count) {
    if (in.u32() != count) {
        in.fail();
        return;
    }
    skipPointers(in, count, skipVariant);
}

void skipVqtArray(Reader& in, std::uint32_t count) {
    constexpr std::size_t vqtSize = 28;
    if (!readConformance(in, count, vqtSize)) {
        return;
    }
    Reader vqts(in.bytes(vqtSize * count));
    for (std::uint32_t i = 0; i < count && in.good(); ++i) {
        if (vqts.pointer()) {
            skipVariant(in);
        }
        vqts.bytes(vqtSize - 4);
    }
}

}  // namespace quelm::opcda::wire
