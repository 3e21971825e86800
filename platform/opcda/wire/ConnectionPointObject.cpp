#include "opcda/wire/ConnectionPointObject.h"

#include "opcda/wire/EnumeratorObjects.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

Fault ConnectionPointObject::getInterface(Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    out.uuid(owner_.outgoingInterface());
    out.hresult(S_OK);
    return Fault::None;
}

Fault ConnectionPointObject::getContainer(Reader& /*in*/, Writer& out, CallContext& context) {
    out.hresult(context.writeInterface(out, container_, iidConnectionPointContainer));
    return Fault::None;
}

// The client's object is neither called nor waited for in here: clients hold a lock until Advise has returned. One that
// has not the right interface is found out later.
Fault ConnectionPointObject::adviseCall(Reader& in, Writer& out, CallContext& context) {
    const bool given = in.pointer();
    const auto reference = given ? dcom::orpc::readInterfacePointer(in) : std::span<const std::uint8_t>{};
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::uint32_t cookie = 0;
    const HResult result = given ? connect(reference, context, cookie) : E_INVALIDARG;
    out.u32(failed(result) ? 0 : cookie);
    out.hresult(result);
    return Fault::None;
}

HResult ConnectionPointObject::connect(std::span<const std::uint8_t> reference, const CallContext& context,
                                       std::uint32_t& cookie) {
    if (owner_.isGone()) {
        return E_FAIL;
    }
    HResult result = S_OK;
    auto connection = connectSink(owner_.outgoing(), owner_.connections(), owner_.memory(), reference,
                                  owner_.outgoingInterface(), context, result);
    if (connection == nullptr) {
        return result;
    }
    SinkConnection& made = *connection;
    result = owner_.advise(std::move(connection), cookie);
    if (!failed(result)) {
        made.setCookie(cookie);
    }
    return result;
}

Fault ConnectionPointObject::unadviseCall(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t cookie = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(owner_.isGone() ? E_FAIL : owner_.unadvise(cookie));
    return Fault::None;
}

Fault ConnectionPointObject::enumConnections(Reader& /*in*/, Writer& out, CallContext& context) {
    const auto connections = owner_.connections();
    std::size_t size = 0;
    for (const SinkConnection* connection : *connections) {
        size += sizeof(ConnectionData) + connection->reference().size();
    }
    Hold memory = owner_.memory();
    if (owner_.isGone() || !memory.resize(size)) {
        return writeNoInterface(out, owner_.isGone() ? E_FAIL : E_OUTOFMEMORY);
    }
    std::vector<ConnectionData> list;
    list.reserve(connections->size());
    for (const SinkConnection* connection : *connections) {
        list.push_back({connection->reference(), connection->cookie()});
    }
    out.hresult(writeEnumerator<EnumConnections>(out, context, iidEnumConnections, owner_.memory(),
                                                 Enumerator(std::move(list), std::move(memory)), S_OK));
    return Fault::None;
}

}  // namespace quelm::opcda::wire
