#include "opcda/wire/AsyncIo2Interface.h"

#include "opcda/Server.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

AsyncIo2Interface::AsyncIo2Interface(OpcGroupObject& object) : group_(object.group()) {}

Fault AsyncIo2Interface::begin(bool writing, Reader& in, Writer& out) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const std::uint32_t count = in.u32();
    std::uint32_t cancelId = 0;
    HResult result = E_OUTOFMEMORY;
    if (count <= group_.application().itemsPerCall()) {
        readU32Array(in, count, buffers->handles);
        if (writing) {
            skipVariantArray(in, count);
        }
        const std::uint32_t transaction = in.u32();
        if (!in.good()) {
            return Fault::BadStubData;
        }
        result = writing ? group_.asyncWrite(buffers->handles, transaction, cancelId, buffers->errors)
                         : group_.asyncRead(buffers->handles, transaction, cancelId, buffers->errors);
    }
    out.u32(cancelId);
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault AsyncIo2Interface::read(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(false, in, out);
}

Fault AsyncIo2Interface::write(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(true, in, out);
}

Fault AsyncIo2Interface::refresh(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint16_t source = in.u16();
    const std::uint32_t transaction = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::uint32_t cancelId = 0;
    const HResult result = group_.refresh(source, transaction, cancelId);
    out.u32(cancelId);
    out.hresult(result);
    return Fault::None;
}

Fault AsyncIo2Interface::cancel(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t cancelId = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(group_.cancel(cancelId));
    return Fault::None;
}

Fault AsyncIo2Interface::setEnable(Reader& in, Writer& out, CallContext& /*context*/) {
    const bool enabled = in.u32() != 0;
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(group_.setEnabled(enabled));
    return Fault::None;
}

Fault AsyncIo2Interface::getEnable(Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    bool enabled = false;
    const HResult result = group_.isEnabled(enabled);
    out.u32(result == S_OK && enabled ? 1 : 0);
    out.hresult(result);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
