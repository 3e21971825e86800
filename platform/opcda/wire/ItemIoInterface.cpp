#include "opcda/wire/ItemIoInterface.h"

#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

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

// Bytes of a reply behind its values: qualities, time stamps, results.
std::size_t behindValues(std::size_t count) {
    return 64 + count * (sizeof(std::uint16_t) + sizeof(std::int64_t) + sizeof(HResult));
}

Fault refuseRead(Writer& out, HResult result) {
    out.nullPointer();
    out.nullPointer();
    out.nullPointer();
    writeErrors(out, result, {});
    return Fault::None;
}

Fault writeReadings(Writer& out, std::size_t memoryLeft, LastUpdate& update, HResult result,
                    const std::vector<ItemIOReading>& readings, std::vector<HResult>& errors) {
    if (failed(result)) {
        return refuseRead(out, result);
    }
    if (!writeVariantArray(out, ReplyRoom(out, memoryLeft), readings, behindValues(readings.size()))) {
        return refuseRead(out, E_OUTOFMEMORY);
    }
    writeQualitiesAndStamps(out, readings);
    errors.clear();
    for (const ItemIOReading& reading : readings) {
        errors.push_back(reading.error);
    }
    writeErrors(out, result, errors);
    if (hasData(errors)) {
        update.note();
    }
    return Fault::None;
}

}  // namespace

Fault ItemIoInterface::read(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const CallBuffers::Loan buffers(server.application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > server.application().itemsPerCall()) {
        return refuseRead(out, E_OUTOFMEMORY);
    }
    readStringArray(in, count, buffers->itemIds);
    readU32Array(in, count, buffers->numbers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    buffers->views.assign(buffers->itemIds.begin(), buffers->itemIds.end());
    std::vector<ItemIOReading>& readings = buffers->readings;
    HResult result = S_OK;
    if (server.itemIO().readCache(buffers->views, buffers->numbers, readings, result)) {
        return writeReadings(out, server.budget()->memory.room(), *server.lastUpdate(), result, readings,
                             buffers->errors);
    }
    server.itemIO().readDevice(
        readings, [reply = context.defer(out), budget = server.budget(), update = server.lastUpdate()](
                      HResult late, const std::vector<ItemIOReading>& answered) {
            if (reply->wanted()) {
                reply->complete([&](Writer& lateOut) {
                    std::vector<HResult> errors;
                    return writeReadings(lateOut, budget->memory.room(), *update, late, answered, errors);
                });
            }
        });
    return Fault::Deferred;
}

Fault ItemIoInterface::writeVqt(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const CallBuffers::Loan buffers(server.application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > server.application().itemsPerCall()) {
        writeErrors(out, E_OUTOFMEMORY, {});
        return Fault::None;
    }
    readStringArray(in, count, buffers->itemIds);
    skipVqts(in, count);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    buffers->views.assign(buffers->itemIds.begin(), buffers->itemIds.end());
    const auto reply = context.defer(out);
    server.itemIO().writeVQT(buffers->views, [reply](HResult result, const std::vector<HResult>& errors) {
        reply->complete([&](Writer& late) {
            writeErrors(late, result, errors);
            return Fault::None;
        });
    });
    return Fault::Deferred;
}

}  // namespace quelm::opcda::wire
