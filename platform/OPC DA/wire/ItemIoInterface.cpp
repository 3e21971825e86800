#include "OPC DA/wire/ItemIoInterface.h"

#include "OPC DA/wire/Parameters.h"
#include "OPC DA/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

enum Opnum : std::uint16_t { Read = 3, WriteVqt = 4 };

// Passes over the values, qualities and time stamps to write: conformance, structures, and the values behind them.
void skipVqts(Reader& in, std::uint32_t count) {
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

void writeQualitiesAndStamps(Writer& out, const std::vector<ItemIOReading>& readings) {
    writeArrayHead(out, readings.size());
    for (const ItemIOReading& reading : readings) {
        out.u16(reading.quality);
    }
    writeArrayHead(out, readings.size());
    for (const ItemIOReading& reading : readings) {
        put(out.extend(sizeof reading.fileTime), reading.fileTime);
    }
}

}  // namespace

std::uint32_t ItemIoInterface::call(Server& server, std::uint16_t opnum, Reader& in, Writer& out,
                                    dcom::orpc::CallContext& /*context*/) {
    switch (opnum) {
        case Read:
            return read(server, in, out);
        case WriteVqt:
            return writeVqt(server, in, out);
        default:
            return dcom::faultOpnumRange;
    }
}

std::uint32_t ItemIoInterface::read(Server& server, Reader& in, Writer& out) {
    const std::uint32_t count = in.u32();
    readStringArray(in, count, itemIds_);
    readU32Array(in, count, maxAges_);
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    views_.assign(itemIds_.begin(), itemIds_.end());
    HResult result = count == 0 ? E_INVALIDARG : server.itemIO().read(views_, maxAges_, readings_);
    if (!failed(result) && !writeVariantArray(out, readings_)) {
        result = E_OUTOFMEMORY;
    }
    errors_.clear();
    if (failed(result)) {
        out.nullPointer();
        out.nullPointer();
        out.nullPointer();
    } else {
        writeQualitiesAndStamps(out, readings_);
        for (const ItemIOReading& reading : readings_) {
            errors_.push_back(reading.error);
        }
    }
    writeErrors(out, result, errors_);
    return 0;
}

std::uint32_t ItemIoInterface::writeVqt(Server& server, Reader& in, Writer& out) {
    const std::uint32_t count = in.u32();
    readStringArray(in, count, itemIds_);
    skipVqts(in, count);
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    views_.assign(itemIds_.begin(), itemIds_.end());
    const HResult result = count == 0 ? E_INVALIDARG : server.itemIO().writeVQT(views_, errors_);
    writeErrors(out, result, errors_);
    return 0;
}

}  // namespace quelm::opcda::wire
