#include "opcda/client/Marshalling.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

void writePointers(Writer& out, std::size_t count) {
    out.u32(static_cast<std::uint32_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
        out.pointer();
    }
}

// Pointers, and behind them what those that aren't null point to.
template <class T, class ReadOne>
std::optional<std::vector<T>> readPointed(Reader& in, std::size_t count, ReadOne readOne) {
    if (!readArrayHead(in, count, sizeof(std::uint32_t)) || !in.good()) {
        return std::nullopt;
    }
    Reader referents(in.bytes(count * sizeof(std::uint32_t)));
    std::vector<T> elements(count);
    for (T& element : elements) {
        if (referents.pointer()) {
            element = readOne(in);
        }
        if (!in.good()) {
            return std::nullopt;
        }
    }
    return elements;
}

}  // namespace

void writeNumbers(Writer& out, std::span<const std::uint32_t> numbers) {
    out.u32(static_cast<std::uint32_t>(numbers.size()));
    for (const std::uint32_t number : numbers) {
        out.u32(number);
    }
}

void writeCounted(Writer& out, std::span<const std::uint32_t> numbers) {
    out.u32(static_cast<std::uint32_t>(numbers.size()));
    writeNumbers(out, numbers);
}

void writeTexts(Writer& out, std::span<const std::string> texts) {
    writePointers(out, texts.size());
    for (const std::string& text : texts) {
        out.align(4);
        out.wideString(text);
    }
    out.align(4);
}

void writeValues(Writer& out, std::span<const Value> values) {
    writePointers(out, values.size());
    for (const Value& value : values) {
        writeValue(out, value);
    }
    out.align(4);
}

void writeUuids(Writer& out, std::span<const Uuid> uuids) {
    out.u32(static_cast<std::uint32_t>(uuids.size()));
    for (const Uuid& uuid : uuids) {
        out.uuid(uuid);
    }
}

bool readArrayHead(Reader& in, std::size_t count, std::size_t elementSize) {
    if (!in.pointer()) {
        return false;
    }
    if (in.count(elementSize) != count) {
        in.fail();
    }
    return true;
}

std::optional<std::vector<std::uint32_t>> readNumbers(Reader& in, std::size_t count) {
    return readArray<std::uint32_t>(in, count, sizeof(std::uint32_t), [](Reader& each) { return each.u32(); });
}

std::optional<std::vector<HResult>> readErrors(Reader& in, std::size_t count) {
    return readArray<HResult>(in, count, sizeof(HResult), [](Reader& each) { return each.hresult(); });
}

std::optional<std::vector<std::optional<std::string>>> readTexts(Reader& in, std::size_t count) {
    return readPointed<std::optional<std::string>>(in, count, [](Reader& each) { return each.wideString(); });
}

std::optional<std::vector<Value>> readValues(Reader& in, std::size_t count) {
    return readPointed<Value>(in, count, readValue);
}

std::optional<std::string> readText(Reader& in) {
    return in.pointer() ? std::optional(in.wideString()) : std::nullopt;
}

std::vector<std::uint8_t> readBlob(Reader& in) {
    const auto bytes = in.bytes(in.count(1));
    return {bytes.begin(), bytes.end()};
}

std::int64_t readFileTime(Reader& in) {
    const std::uint64_t low = in.u32();
    return static_cast<std::int64_t>(std::uint64_t{in.u32()} << 32U | low);
}

std::uint32_t readVaryingHead(Reader& in, std::uint32_t wanted, std::size_t elementSize) {
    in.u32();  // conformance: what was asked for
    const std::uint32_t offset = in.u32();
    const std::uint32_t count = in.count(elementSize);
    if (offset != 0 || count > wanted) {
        in.fail();
        return 0;
    }
    return count;
}

void readFetched(Reader& in, std::uint32_t count) {
    if (in.u32() != count) {
        in.fail();
    }
}

}  // namespace quelm::opcda::client
