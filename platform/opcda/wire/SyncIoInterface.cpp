#include "opcda/wire/SyncIoInterface.h"

#include "opcda/Server.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

enum Source : std::uint16_t { Cache = 1, Device = 2 };

// The array of item states, filled in place while the values are written behind it.
class StateArray {
 public:
    // Bytes of the reply for an item with a number as its value, without its result.
    static constexpr std::size_t itemSize = 20 + scalarVariantSize;

    StateArray(Writer& out, std::uint32_t count) : out_(out) {
        out.buffer().reserve(out.buffer().size() + headSize + (itemSize + sizeof(HResult)) * count);
        writeArrayHead(out, count);
        next_ = out.buffer().size();
        out.extend(stateSize * count);
    }

    void add(const ItemReading& reading) {
        std::uint8_t* at = out_.buffer().data() + next_;
        next_ += stateSize;
        at = put(at, reading.clientHandle);
        at = put(at, reading.fileTime);
        at = put(at, std::uint32_t{reading.quality});  // and a reserved half
        put(at, referent_ += 4);
        writeVariant(out_, reading.value);
    }

 private:
    static constexpr std::size_t stateSize = 20;
    static constexpr std::size_t headSize = 64;

    Writer& out_;
    std::size_t next_ = 0;
    // Apart from those that the writer itself gives, so that no two pointers of the reply look alike.
    std::uint32_t referent_ = 0x40000000;
};

Fault refuseRead(Writer& out, HResult result) {
    out.nullPointer();
    out.nullPointer();
    out.hresult(result);
    return Fault::None;
}

// Bytes of a reply behind its states and values.
std::size_t behindStates(std::size_t count) {
    return 16 + count * sizeof(HResult);
}

// source: the group, or what a device read of it gave. readAll(sink) calls sink once for each of the items and gives
// the result of the whole.
template <class Source, class ReadAll>
Fault writeStates(Writer& out, const Source& source, std::size_t count, std::vector<HResult>& errors,
                  ReadAll&& readAll) {
    ReplyRoom room(out, source.memoryLeft());
    const std::size_t behind = behindStates(count);
    if (!room.has(behind + count * StateArray::itemSize)) {
        return refuseRead(out, E_OUTOFMEMORY);
    }
    StateArray states(out, static_cast<std::uint32_t>(count));
    errors.clear();
    const HResult result = readAll([&](const ItemReading& reading) {
        if (room.has(behind)) {
            states.add(reading);
            errors.push_back(reading.error);
        }
    });
    if (!room.has(behind)) {
        room.clear();
        return refuseRead(out, E_OUTOFMEMORY);
    }
    writeErrors(out, result, errors);
    if (hasData(errors)) {
        source.noteDataSent();
    }
    return Fault::None;
}

}  // namespace

SyncIoCalls::SyncIoCalls(OpcGroupObject& object) : group_(object.group()) {}

Fault SyncIoCalls::read(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    std::vector<std::uint32_t>& handles = buffers->handles;
    const std::uint16_t source = in.u16();
    const std::uint32_t count = in.u32();
    if (count > group_.application().itemsPerCall()) {
        return refuseRead(out, E_OUTOFMEMORY);
    }
    readU32Array(in, count, handles);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (group_.isRemoved()) {
        return refuseRead(out, E_FAIL);
    }
    if (handles.empty() || (source != Cache && source != Device)) {
        return refuseRead(out, E_INVALIDARG);
    }
    if (!ReplyRoom(out, group_.memoryLeft())
             .has(behindStates(handles.size()) + handles.size() * StateArray::itemSize)) {
        return refuseRead(out, E_OUTOFMEMORY);
    }
    if (source == Cache) {
        return writeStates(out, group_, handles.size(), buffers->errors,
                           [&](const auto& sink) { return group_.readCache(handles, sink); });
    }
    group_.readDevice(handles, MaxAges(noAge),
                      [reply = context.defer(out), count = handles.size()](DeviceReading& reading) {
                          if (reply->wanted()) {
                              reply->complete([&](Writer& late) {
                                  std::vector<HResult> errors;
                                  return writeStates(late, reading, count, errors,
                                                     [&](const auto& sink) { return reading.deliver(sink); });
                              });
                          }
                      });
    return Fault::Deferred;
}

Fault SyncIoCalls::write(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    return refuseWrite(in, out, context, skipVariantArray);
}

Fault SyncIoCalls::refuseWrite(Reader& in, Writer& out, dcom::orpc::CallContext& context,
                               void (*skipValues)(Reader&, std::uint32_t)) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const std::uint32_t count = in.u32();
    if (count > group_.application().itemsPerCall()) {
        writeErrors(out, E_OUTOFMEMORY, {});
        return Fault::None;
    }
    readU32Array(in, count, buffers->handles);
    skipValues(in, count);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (group_.isRemoved() || count == 0) {
        writeErrors(out, group_.isRemoved() ? E_FAIL : E_INVALIDARG, {});
        return Fault::None;
    }
    group_.write(buffers->handles, [reply = context.defer(out)](HResult result, const std::vector<HResult>& errors) {
        reply->complete([&](Writer& late) {
            writeErrors(late, result, errors);
            return Fault::None;
        });
    });
    return Fault::Deferred;
}

}  // namespace quelm::opcda::wire
