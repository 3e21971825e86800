#include "opcda/client/Sinks.h"

#include <cstring>

#include "opcda/client/Marshalling.h"

namespace quelm::opcda::client {

using dcom::ndr::Reader;

namespace {

// The array of an [in] parameter: its conformance, which must be the count of the call.
template <class ReadOne>
void readColumn(Reader& in, std::size_t count, std::size_t elementSize, ReadOne readOne) {
    if (in.count(elementSize) != count) {
        in.fail();
        return;
    }
    for (std::size_t i = 0; i < count && in.good(); ++i) {
        readOne(i);
    }
}

// What stands for each item in the columns, at the least: handle, pointer, quality, time stamp, result.
constexpr std::size_t leastItem = 4 + 4 + 2 + 8 + 4;

DataEvent readData(Reader& in) {
    DataEvent event;
    event.transaction = in.u32();
    event.clientGroup = in.u32();
    event.masterQuality = in.hresult();
    event.masterError = in.hresult();
    const std::uint32_t count = in.count(leastItem);
    std::vector<DataEvent::Item>& items = event.items;
    items.resize(count);
    readColumn(in, count, 4, [&](std::size_t i) { items[i].clientHandle = in.u32(); });
    std::vector<bool> hasValue(count);
    readColumn(in, count, 4, [&](std::size_t i) { hasValue[i] = in.pointer(); });
    for (std::size_t i = 0; i < count && in.good(); ++i) {
        if (hasValue[i]) {
            items[i].value = readValue(in);
        }
    }
    readColumn(in, count, 2, [&](std::size_t i) { items[i].quality = in.u16(); });
    readColumn(in, count, 8, [&](std::size_t i) { items[i].fileTime = readFileTime(in); });
    readColumn(in, count, 4, [&](std::size_t i) { items[i].error = in.hresult(); });
    return event;
}

WriteEvent readWrites(Reader& in) {
    WriteEvent event;
    event.transaction = in.u32();
    event.clientGroup = in.u32();
    event.masterError = in.hresult();
    const std::uint32_t count = in.count(2 * sizeof(std::uint32_t));
    event.items.resize(count);
    readColumn(in, count, 4, [&](std::size_t i) { event.items[i].clientHandle = in.u32(); });
    readColumn(in, count, 4, [&](std::size_t i) { event.items[i].error = in.hresult(); });
    return event;
}

CancelEvent readCancel(Reader& in) {
    CancelEvent event;
    event.transaction = in.u32();
    event.clientGroup = in.u32();
    return event;
}

// The whole event, or nothing of it: the transport answers what does not decode with a fault.
template <class Event>
HResult hand(const std::function<void(const Event&)>& handler, const Reader& in, const Event& event) {
    if (in.good() && handler) {
        handler(event);
    }
    return S_OK;
}

}  // namespace

HResult DataSink::called(std::uint16_t opnum, Reader& parameters) {
    switch (static_cast<wire::DataCallback>(opnum)) {
        case wire::DataCallback::OnDataChange:
            return hand(onDataChange, parameters, readData(parameters));
        case wire::DataCallback::OnReadComplete:
            return hand(onReadComplete, parameters, readData(parameters));
        case wire::DataCallback::OnWriteComplete:
            return hand(onWriteComplete, parameters, readWrites(parameters));
        case wire::DataCallback::OnCancelComplete:
            return hand(onCancelComplete, parameters, readCancel(parameters));
    }
    return E_NOTIMPL;
}

HResult ShutdownSink::called(std::uint16_t opnum, Reader& parameters) {
    if (static_cast<wire::Shutdown>(opnum) != wire::Shutdown::ShutdownRequest) {
        return E_NOTIMPL;
    }
    return hand(onShutdownRequest, parameters, parameters.wideString());
}

}  // namespace quelm::opcda::client
