#include "opcda/wire/SyncIo2Interface.h"

#include "opcda/Application.h"
#include "opcda/wire/ValueColumns.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

// How a read puts its items into the columns.
auto into(ValueColumns& columns) {
    return [&columns](const ItemReading& reading) {
        columns.add(reading.error, reading.quality, reading.fileTime, reading.value);
    };
}

Fault writeAnswer(Writer& out, const DeviceReading& reading, std::size_t count) {
    std::vector<BehindValue> behind;
    ValueColumns columns(out, reading.memoryLeft(), count, behind);
    if (columns.end(reading.deliver(into(columns)))) {
        reading.noteDataSent();
    }
    return Fault::None;
}

}  // namespace

Fault SyncIo2Interface::readMaxAge(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const CallBuffers::Loan buffers(group().application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > group().application().itemsPerCall()) {
        return refuseColumns(out, E_OUTOFMEMORY);
    }
    readU32Array(in, count, buffers->handles);
    readU32Array(in, count, buffers->numbers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    ValueColumns columns(out, group().memoryLeft(), count, buffers->behindValues);
    const auto result = group().readYoung(buffers->handles, buffers->numbers, into(columns));
    if (result || !columns.hasRoom()) {
        if (columns.end(result.value_or(E_OUTOFMEMORY))) {
            group().noteDataSent();
        }
        return Fault::None;
    }
    columns.clear();
    const auto answer = [reply = context.defer(out), count](const DeviceReading& reading) {
        if (reply->wanted()) {
            reply->complete([&](Writer& late) { return writeAnswer(late, reading, count); });
        }
    };
    group().readDevice(buffers->handles, MaxAges(buffers->numbers), answer);
    return Fault::Deferred;
}

Fault SyncIo2Interface::writeVqt(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    return refuseWrite(in, out, context, skipVqtArray);
}

}  // namespace quelm::opcda::wire
