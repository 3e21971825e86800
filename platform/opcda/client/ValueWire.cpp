#include <bit>
#include <limits>

#include "base/Utf.h"
#include "opcda/client/Value.h"
#include "opcda/wire/VariantForm.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

using enum wire::ArrayKind;

Value readBody(Reader& in, int depth);

// Bytes of a number of the type; 0: it is none.
std::size_t sizeOf(VarType type) {
    switch (type) {
        case VT_I1:
        case VT_UI1:
            return 1;
        case VT_I2:
        case VT_UI2:
        case VT_BOOL:
            return 2;
        case VT_I4:
        case VT_UI4:
        case VT_INT:
        case VT_UINT:
        case VT_R4:
        case VT_ERROR:
            return 4;
        case VT_I8:
        case VT_UI8:
        case VT_R8:
        case VT_CY:
        case VT_DATE:
            return 8;
        default:
            return 0;
    }
}

bool isReal(VarType type) {
    return type == VT_R4 || type == VT_R8 || type == VT_DATE;
}

double readReal(Reader& in, VarType type) {
    return type == VT_R4 ? static_cast<double>(in.f32()) : in.f64();
}

std::int64_t readInteger(Reader& in, VarType type) {
    switch (type) {
        case VT_I1:
            return static_cast<std::int8_t>(in.u8());
        case VT_UI1:
            return in.u8();
        case VT_I2:
            return in.i16();
        case VT_UI2:
            return in.u16();
        case VT_BOOL:
            return in.u16() != 0 ? -1 : 0;
        case VT_UI4:
        case VT_UINT:
            return in.u32();
        case VT_I8:
        case VT_UI8:
        case VT_CY:
            return in.i64();
        default:
            return in.i32();
    }
}

// A text of counted words, behind conformance, length in bytes and length in words.
std::string readTextBlob(Reader& in) {
    const std::uint32_t conformance = in.count(1);
    in.u32();  // length in bytes
    if (in.u32() != conformance) {
        in.fail();
        return {};
    }
    const auto raw = in.bytes(std::size_t{conformance} * 2);
    std::u16string words(raw.size() / 2, u'\0');
    if (!raw.empty()) {
        std::memcpy(words.data(), raw.data(), raw.size());
    }
    return utf16ToUtf8(words);
}

Decimal readDecimal(Reader& in) {
    in.align(8);
    in.u16();
    Decimal value;
    value.scale = in.u8();
    value.negative = (in.u8() & 0x80U) != 0;
    value.high = in.u32();
    value.low = in.u64();
    if (value.scale > 28) {
        in.fail();
    }
    return value;
}

void passOverInterfacePointer(Reader& in) {
    const std::uint32_t conformance = in.u32();
    if (in.u32() != conformance) {
        in.fail();
        return;
    }
    in.bytes(conformance);
}

// An array of pointers, and then what those that aren't null point to; readOne reads one of these, and what a null one
// stands for is a default.
template <class T, class ReadOne>
std::vector<T> readPointed(Reader& in, std::uint32_t count, ReadOne readOne) {
    in.align(4);
    if (count > in.remaining() / 4) {
        in.fail();
        return {};
    }
    Reader referents(in.bytes(std::size_t{count} * 4));
    std::vector<T> elements(count);
    for (T& element : elements) {
        if (referents.pointer()) {
            element = readOne(in);
        }
        if (!in.good()) {
            return {};
        }
    }
    return elements;
}

void passOverPointed(Reader& in, std::uint32_t count) {
    readPointed<char>(in, count, [](Reader& inner) {
        passOverInterfacePointer(inner);
        return '\0';
    });
}

// size: bytes of one, never 0.
template <class T, class ReadOne>
std::vector<T> readNumbers(Reader& in, std::uint32_t count, VarType type, std::size_t size, ReadOne readOne) {
    in.align(size);
    if (count > in.remaining() / size) {
        in.fail();
        return {};
    }
    std::vector<T> numbers(count);
    for (T& number : numbers) {
        number = readOne(in, type);
    }
    return numbers;
}

// The number of bytes that an element of a kind takes; 0: it is no number.
std::size_t sizeOfKind(std::uint32_t kind) {
    return kind == OfBytes ? 1 : kind == OfShorts ? 2 : kind == OfLongs ? 4 : kind == OfHypers ? 8 : 0;
}

void readElements(Reader& in, std::uint32_t kind, std::uint32_t count, int depth, Value& value) {
    const auto type = static_cast<VarType>(value.type & ~VT_ARRAY);
    if (const std::size_t size = sizeOfKind(kind); size != 0) {
        if (size != sizeOf(type)) {
            in.fail();
        } else if (isReal(type)) {
            value.contents = readNumbers<double>(in, count, type, size, readReal);
        } else {
            value.contents = readNumbers<std::int64_t>(in, count, type, size, readInteger);
        }
    } else if (kind == OfTexts) {
        value.contents = readPointed<std::string>(in, count, readTextBlob);
    } else if (kind == OfVariants) {
        value.contents = readPointed<Value>(in, count, [depth](Reader& inner) { return readBody(inner, depth + 1); });
    } else if (kind == OfDispatches || kind == OfUnknowns || kind == OfInterfaces) {
        passOverPointed(in, count);
    } else {
        in.fail();
    }
}

void readArray(Reader& in, int depth, Value& value) {
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
    in.align(4);
    in.bytes(std::size_t{dimensions} * 8);  // elements and lower bound of each
    if (!hasElements || !in.good()) {
        return;
    }
    if (in.u32() != count) {
        in.fail();
        return;
    }
    readElements(in, kind, count, depth, value);
}

// The union's arm, and what its pointers refer to.
void readContents(Reader& in, VarType type, int depth, Value& value) {
    if (isReal(type)) {
        value.contents = readReal(in, type);
        return;
    }
    if (sizeOf(type) != 0) {
        value.contents = readInteger(in, type);
        return;
    }
    if ((type & VT_ARRAY) != 0) {
        return readArray(in, depth, value);
    }
    switch (type) {
        case VT_EMPTY:
        case VT_NULL:
            return;
        case VT_DECIMAL:
            value.contents = readDecimal(in);
            return;
        case VT_BSTR:
            value.contents = in.pointer() ? readTextBlob(in) : std::string();
            return;
        case VT_DISPATCH:
        case VT_UNKNOWN:
            return in.pointer() ? passOverInterfacePointer(in) : void();
        case VT_VARIANT:
            if (in.pointer()) {
                value = readBody(in, depth + 1);
            }
            return;
        default:
            return in.fail();
    }
}

Value readBody(Reader& in, int depth) {
    if (depth > wire::deepestVariant) {
        in.fail();
        return {};
    }
    in.align(8);
    in.u32();  // size
    in.u32();  // reserved
    Value value;
    value.type = static_cast<VarType>(in.u16() & ~wire::VT_BYREF);
    in.bytes(6);  // reserved
    const std::uint32_t arm = in.u32();
    const auto type = static_cast<VarType>(arm & ~std::uint32_t{wire::VT_BYREF});
    const bool fits = (type & VT_ARRAY) != 0 ? value.isArray() : type == value.type;
    if (!in.good() || arm > 0xFFFF || !fits) {
        in.fail();
        return {};
    }
    if ((arm & wire::VT_BYREF) == 0 || in.pointer()) {
        readContents(in, type, depth, value);
    }
    return in.good() ? value : Value();
}

std::uint32_t kindOf(VarType type) {
    switch (sizeOf(type)) {
        case 1:
            return OfBytes;
        case 2:
            return OfShorts;
        case 4:
            return OfLongs;
        case 8:
            return OfHypers;
        default:
            return type == VT_BSTR ? OfTexts : OfVariants;
    }
}

// A text without its NUL behind conformance, length in bytes and length in words.
void writeTextBlob(Writer& out, const std::string& utf8) {
    const std::u16string words = utf8ToUtf16(utf8);
    const auto count = static_cast<std::uint32_t>(words.size());
    out.u32(count);
    out.u32(count * 2);
    out.u32(count);
    out.bytes({reinterpret_cast<const std::uint8_t*>(words.data()), words.size() * 2});
}

void writeNumber(Writer& out, VarType type, std::int64_t number) {
    switch (sizeOf(type)) {
        case 1:
            return out.u8(static_cast<std::uint8_t>(number));
        case 2:
            return out.u16(static_cast<std::uint16_t>(number));
        case 4:
            return out.u32(static_cast<std::uint32_t>(number));
        default:
            return out.i64(number);
    }
}

struct ElementWriter {
    Writer& out;
    VarType type;

    void operator()(const std::vector<std::int64_t>& numbers) const {
        for (const std::int64_t number : numbers) {
            writeNumber(out, type, number);
        }
    }
    void operator()(const std::vector<double>& numbers) const {
        for (const double number : numbers) {
            type == VT_R4 ? out.f32(static_cast<float>(number)) : out.f64(number);
        }
    }
    void operator()(const std::vector<std::string>& texts) const {
        writePointers(texts.size());
        for (const std::string& text : texts) {
            writeTextBlob(out, text);
        }
    }
    void operator()(const std::vector<Value>& values) const {
        writePointers(values.size());
        for (const Value& value : values) {
            writeValue(out, value);
        }
    }
    template <class NoArray>
    void operator()(const NoArray& /*contents*/) const {}

 private:
    void writePointers(std::size_t count) const {
        for (std::size_t i = 0; i < count; ++i) {
            out.pointer();
        }
    }
};

void writeArray(Writer& out, const Value& value) {
    const auto type = static_cast<VarType>(value.type & ~VT_ARRAY);
    const auto count = static_cast<std::uint32_t>(value.size());
    out.align(8);
    const std::size_t start = out.position();
    out.u32(0);  // size, known in the end
    out.u32(0);
    out.u16(value.type);
    out.u16(0);
    out.u32(0);
    out.u32(VT_ARRAY);
    out.pointer();
    out.pointer();
    out.u32(1);  // dimensions, as conformance and as field
    out.u16(1);
    out.u16(wire::featureHaveType | (type == VT_BSTR      ? wire::featureTexts
                                     : type == VT_VARIANT ? wire::featureVariants
                                                          : 0));
    out.u32(static_cast<std::uint32_t>(type == VT_VARIANT ? 16 : type == VT_BSTR ? 4 : sizeOf(type)));
    out.u32(std::uint32_t{type} << 16);  // no locks, and the type in the free half
    out.u32(kindOf(type));
    out.u32(count);
    out.pointer();
    out.u32(count);
    out.u32(0);  // lower bound
    out.u32(count);
    if (sizeOf(type) == 8) {
        out.align(8);
    }
    std::visit(ElementWriter{out, type}, value.contents);
    out.patchU32(start, static_cast<std::uint32_t>((out.position() - start + 7) / 8));
}

}  // namespace

Value readValue(Reader& in) {
    return readBody(in, 0);
}

void writeValue(Writer& out, const Value& value) {
    if (value.isArray()) {
        return writeArray(out, value);
    }
    OpcValue scalar;
    scalar.type = value.type;
    if (const auto* number = std::get_if<std::int64_t>(&value.contents)) {
        scalar.integer = *number;
    } else if (const auto* real = std::get_if<double>(&value.contents)) {
        scalar.real = *real;
        scalar.single = static_cast<float>(*real);
    } else if (const auto* decimal = std::get_if<Decimal>(&value.contents)) {
        scalar.decimal = *decimal;
    } else if (const auto* text = std::get_if<std::string>(&value.contents)) {
        scalar.text = *text;
    }
    wire::writeVariant(out, scalar);
}

}  // namespace quelm::opcda::client
