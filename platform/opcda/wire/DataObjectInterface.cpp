#include "opcda/wire/DataObjectInterface.h"

#include "opcda/Group.h"
#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/StreamFormats.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

Fault DataObjectInterface::refuse(Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    out.hresult(E_NOTIMPL);
    return Fault::None;
}

Fault DataObjectInterface::refuseObject(Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    return writeNoInterface(out, E_NOTIMPL);
}

Fault DataObjectInterface::refuseFormat(Reader& in, Writer& out, CallContext& context) {
    writeNoFormat(out);
    return refuse(in, out, context);
}

Fault DataObjectInterface::refuseMedium(Reader& in, Writer& out, CallContext& context) {
    writeNoMedium(out);
    return refuse(in, out, context);
}

Fault DataObjectInterface::query(Reader& in, Writer& out, CallContext& /*context*/) {
    const AskedFormat format = readFormat(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(object_.isGone() ? E_FAIL : !format.stream ? DV_E_FORMATETC : !format.inMemory ? DV_E_TYMED : S_OK);
    return Fault::None;
}

// What may be asked for; nothing is taken.
Fault DataObjectInterface::enumerate(Reader& in, Writer& out, CallContext& context) {
    constexpr std::uint32_t asking = 1;
    const std::uint32_t direction = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (object_.isGone() || direction != asking) {
        return writeNoInterface(out, object_.isGone() ? E_FAIL : E_NOTIMPL);
    }
    out.hresult(writeEnumerator<EnumFormats>(out, context, iidEnumFormats, object_.memory(),
                                             Enumerator<Stream>({Stream::values, Stream::timedValues, Stream::writes}),
                                             S_OK));
    return Fault::None;
}

// The flags with which a client may ask for less than all values from now on are passed over.
Fault DataObjectInterface::advise(Reader& in, Writer& out, CallContext& context) {
    const AskedFormat format = readFormat(in);
    in.u32();  // flags
    const bool given = in.pointer();
    const auto reference = given ? dcom::orpc::readInterfacePointer(in) : std::span<const std::uint8_t>{};
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::uint32_t connection = 0;
    const HResult result = object_.isGone() ? E_FAIL
                           : !given         ? E_INVALIDARG
                                            : connect(format, reference, context, connection);
    out.u32(connection);
    out.hresult(result);
    return Fault::None;
}

// What is refused is taken first all the same: its end gives back the references that came with the call.
HResult DataObjectInterface::connect(const AskedFormat& format, std::span<const std::uint8_t> reference,
                                     const CallContext& context, std::uint32_t& connection) {
    HResult result = S_OK;
    // Nobody can ask for a list of these connections.
    auto made = connectSink(object_.outgoing(), std::make_shared<ConnectionBook>(), object_.memory(), reference,
                            iidAdviseSink, context, result);
    if (!format.stream || !format.inMemory) {
        return !format.stream ? DV_E_FORMATETC : DV_E_TYMED;
    }
    if (made == nullptr) {
        return result;
    }
    const Stream stream = *format.stream;
    Group& group = object_.group();
    SinkConnection& its = *made;
    result = group.adviseStream(std::make_unique<StreamSink>(group, stream, std::move(made)), stream, connection);
    if (!failed(result)) {
        its.setCookie(connection);
    }
    return result;
}

Fault DataObjectInterface::unadvise(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t connection = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    const HResult result = object_.group().unadviseStream(connection);
    out.hresult(result == CONNECT_E_NOCONNECTION ? OLE_E_NOCONNECTION : result);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
