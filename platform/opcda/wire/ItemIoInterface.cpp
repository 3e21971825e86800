#include "opcda/wire/ItemIoInterface.h"

#include "opcda/wire/Parameters.h"
#include "opcda/wire/ValueColumns.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

Fault writeReadings(Writer& out, std::size_t memoryLeft, LastUpdate& update, HResult result,
                    const std::vector<ItemIOReading>& readings, std::vector<BehindValue>& behind) {
    if (failed(result)) {
        return refuseColumns(out, result);
    }
    ValueColumns columns(out, memoryLeft, readings.size(), behind);
    OpcValue value;
    for (const ItemIOReading& reading : readings) {
        value.type = VT_EMPTY;
        if (reading.error == S_OK) {
            convert(reading.value, reading.type, value);
        }
        columns.add(reading.error, reading.quality, reading.fileTime, value);
    }
    if (columns.end(result)) {
        update.note();
    }
    return Fault::None;
}

}  // namespace

Fault ItemIoInterface::read(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const CallBuffers::Loan buffers(server.application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > server.application().itemsPerCall()) {
        return refuseColumns(out, E_OUTOFMEMORY);
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
                             buffers->behindValues);
    }
    server.itemIO().readDevice(
        readings, [reply = context.defer(out), budget = server.budget(), update = server.lastUpdate()](
                      HResult late, const std::vector<ItemIOReading>& answered) {
            if (reply->wanted()) {
                reply->complete([&](Writer& lateOut) {
                    std::vector<BehindValue> behind;
                    return writeReadings(lateOut, budget->memory.room(), *update, late, answered, behind);
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
    skipVqtArray(in, count);
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
