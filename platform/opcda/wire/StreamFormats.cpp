#include "opcda/wire/StreamFormats.h"

#include <algorithm>
#include <array>
#include <bit>

#include "base/Text.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

// In the order of the streams.
constexpr std::array<std::string_view, 3> formatNames{"OPCSTMFORMATDATA", "OPCSTMFORMATDATATIME",
                                                      "OPCSTMFORMATWRITECOMPLETE"};

// How something that only means anything on its own machine is handed over.
enum Handover : std::uint32_t { byNumber = 0x48746457, byContents = 0x52746457 };

constexpr std::uint32_t blockOfMemory = 1;  // among the media
constexpr std::uint32_t contents = 1;       // among the views
constexpr std::uint32_t whole = 0xFFFFFFFF;
// A format's on this machine, of no meaning on another one.
constexpr std::uint32_t formatNumber = 0xC001;

// What stands behind a pointer to it stands on a multiple of 8 where some clients write it, and of 4 where others do.
std::string readName(Reader& in) {
    std::uint32_t handover = in.u32();
    if (handover != byNumber && handover != byContents && in.position() % 8 == 0) {
        handover = in.u32();
    }
    const bool isGiven = in.pointer();  // or the number, which nobody else knows
    if (handover != byNumber && handover != byContents) {
        in.fail();
    }
    return handover == byContents && isGiven ? in.wideString() : std::string();
}

void skipTargetDevice(Reader& in) {
    constexpr std::size_t places = 8;
    const std::uint32_t size = in.u32();
    in.u32();  // the same and what stands around it
    in.bytes(places);
    in.bytes(size);
}

}  // namespace

AskedFormat readFormat(Reader& in) {
    const bool hasName = in.pointer();
    const bool hasDevice = in.pointer();
    in.u32();  // view
    in.u32();  // part
    AskedFormat asked;
    asked.inMemory = (in.u32() & blockOfMemory) != 0;
    const std::string name = hasName ? readName(in) : std::string();
    if (hasDevice) {
        skipTargetDevice(in);
    }
    const auto found = std::find_if(formatNames.begin(), formatNames.end(),
                                    [&name](std::string_view each) { return equalsIgnoringCase(each, name); });
    if (found != formatNames.end()) {
        asked.stream = static_cast<Stream>(found - formatNames.begin());
    }
    return asked;
}

void writeFormat(Writer& out) {
    out.pointer();  // the format's name
    out.nullPointer();
    out.u32(contents);
    out.u32(whole);
    out.u32(blockOfMemory);
}

void writeFormatName(Writer& out, Stream stream) {
    out.align(4);
    out.u32(byContents);
    out.u32(formatNumber);
    out.wideString(formatNames.at(static_cast<std::size_t>(stream)));
}

void writeNoFormat(Writer& out) {
    out.pointer();
    for (int field = 0; field < 4; ++field) {
        out.u32(0);
    }
    out.u32(byNumber);
    out.u32(0);
}

void writeNoMedium(Writer& out) {
    out.pointer();
    out.u32(0);
    out.nullPointer();
}

void writeStreamHead(Writer& out, Stream stream, std::size_t size) {
    // Of no meaning here, but what is told twice is compared.
    constexpr std::uint32_t handle = 0x00030004;
    out.pointer();
    writeFormat(out);
    writeFormatName(out, stream);
    out.align(4);
    out.pointer();
    out.pointer();  // the medium, as what stands for it
    out.align(8);
    out.u32(blockOfMemory);
    out.pointer();
    out.nullPointer();  // the client frees it
    out.u32(byContents);
    out.u32(handle);
    out.u32(static_cast<std::uint32_t>(size));
    out.u32(handle);
    out.u32(static_cast<std::uint32_t>(size));
}

void writeInMemory(Writer& out, const OpcValue& value) {
    constexpr std::size_t headSize = 8;
    constexpr std::size_t valueSize = 8;
    out.align(8);
    const std::size_t start = out.position();
    std::uint8_t* const head = out.extend(headSize + (value.type == VT_BSTR ? 0 : valueSize));
    std::uint8_t* const its = head + headSize;
    put(head, value.type);
    switch (value.type) {
        case VT_BSTR: {
            // Of the three counts that stand in front of a text, two are where the value of no meaning is here.
            constexpr std::size_t counts = 12;
            out.wideString(value.text);
            const std::size_t size = out.position() - start - headSize - counts - sizeof(char16_t);
            out.patchU32(start + headSize, 0);
            out.patchU32(start + headSize + 4, 0);
            out.patchU32(start + headSize + 8, static_cast<std::uint32_t>(size));
            return;
        }
        case VT_R4:
            put(its, value.single);
            return;
        case VT_R8:
        case VT_DATE:
            put(its, value.real);
            return;
        case VT_DECIMAL:
            put(put(put(head + 2, value.decimal.scale), static_cast<std::uint8_t>(value.decimal.negative ? 0x80 : 0)),
                value.decimal.high);
            put(its, value.decimal.low);
            return;
        case VT_NULL:
            return;
        case VT_EMPTY:
        case VT_BSTR_ARRAY:
            put(head, VT_EMPTY);
            return;
        default:
            put(its, value.integer);
    }
}

}  // namespace quelm::opcda::wire
