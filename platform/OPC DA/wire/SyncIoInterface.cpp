#include "OPC DA/wire/SyncIoInterface.h"

#include "OPC DA/wire/Parameters.h"
#include "OPC DA/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

enum Opnum : std::uint16_t { Read = 3, Write = 4 };
enum Source : std::uint16_t { Cache = 1, Device = 2 };

// The array of item states, filled in place while the values are written behind it.
class StateArray {
 public:
    // Bytes of the reply for an item with a number as its value, result included.
    static constexpr std::size_t itemSize = 20 + scalarVariantSize + sizeof(HResult);

    StateArray(Writer& out, std::uint32_t count) : out_(out) {
        out.buffer().reserve(out.buffer().size() + headSize + itemSize * count);
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

std::uint32_t refuseRead(Writer& out, HResult result) {
    out.nullPointer();
    out.nullPointer();
    out.u32(result);
    return 0;
}

}  // namespace

std::uint32_t SyncIoInterface::invoke(std::uint16_t opnum, Reader& in, Writer& out,
                                      dcom::orpc::CallContext& /*context*/) {
    switch (opnum) {
        case Read:
            return read(in, out);
        case Write:
            return write(in, out);
        default:
            return dcom::faultOpnumRange;
    }
}

std::uint32_t SyncIoInterface::read(Reader& in, Writer& out) {
    const std::uint16_t source = in.u16();
    readU32Array(in, in.u32(), handles_);
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    if (group_.isRemoved()) {
        return refuseRead(out, E_FAIL);
    }
    if (handles_.empty() || (source != Cache && source != Device)) {
        return refuseRead(out, E_INVALIDARG);
    }
    if (handles_.size() > maxReplySize / StateArray::itemSize) {
        return refuseRead(out, E_OUTOFMEMORY);
    }
    const std::size_t start = out.buffer().size();
    const auto isTooLarge = [&out, start] { return out.buffer().size() - start > maxReplySize; };
    StateArray states(out, static_cast<std::uint32_t>(handles_.size()));
    errors_.clear();
    const auto sink = [&](const ItemReading& reading) {
        if (!isTooLarge()) {
            states.add(reading);
            errors_.push_back(reading.error);
        }
    };
    const HResult result = source == Cache ? group_.readCache(handles_, sink) : group_.readDevice(handles_, sink);
    if (isTooLarge()) {
        out.buffer().resize(start);
        return refuseRead(out, E_OUTOFMEMORY);
    }
    writeU32Array(out, errors_);
    out.u32(result);
    return 0;
}

std::uint32_t SyncIoInterface::write(Reader& in, Writer& out) {
    const std::uint32_t count = in.u32();
    readU32Array(in, count, handles_);
    skipVariantArray(in, count);
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    HResult result = E_INVALIDARG;
    if (group_.isRemoved()) {
        result = E_FAIL;
    } else if (count != 0) {
        result = group_.write(handles_, errors_);
    }
    writeErrors(out, result, errors_);
    return 0;
}

}  // namespace quelm::opcda::wire
