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

AsyncIoCalls::AsyncIoCalls(OpcGroupObject& object) : group_(object.group()) {}

Fault AsyncIoCalls::begin(Given given, Reader& in, Writer& out) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const std::uint32_t count = in.u32();
    std::uint32_t cancelId = 0;
    HResult result = E_OUTOFMEMORY;
    if (count <= group_.application().itemsPerCall()) {
        readU32Array(in, count, buffers->handles);
        if (given == Given::MaxAges) {
            readU32Array(in, count, buffers->numbers);
        } else if (given != Given::Nothing) {
            (given == Given::Values ? skipVariantArray : skipVqtArray)(in, count);
        }
        const std::uint32_t transaction = in.u32();
        if (!in.good()) {
            return Fault::BadStubData;
        }
        const bool isRead = given == Given::Nothing || given == Given::MaxAges;
        const MaxAges maxAges = given == Given::MaxAges ? MaxAges(buffers->numbers) : MaxAges(noAge);
        result = isRead ? group_.asyncRead(buffers->handles, transaction, cancelId, buffers->errors, maxAges)
                        : group_.asyncWrite(buffers->handles, transaction, cancelId, buffers->errors);
    }
    out.u32(cancelId);
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault AsyncIoCalls::read(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(Given::Nothing, in, out);
}

Fault AsyncIoCalls::write(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(Given::Values, in, out);
}

Fault AsyncIoCalls::refresh(Reader& in, Writer& out, CallContext& /*context*/) {
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

Fault AsyncIoCalls::cancel(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t cancelId = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(group_.cancel(cancelId));
    return Fault::None;
}

Fault AsyncIoCalls::setEnable(Reader& in, Writer& out, CallContext& /*context*/) {
    const bool enabled = in.u32() != 0;
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(group_.setEnabled(enabled));
    return Fault::None;
}

Fault AsyncIoCalls::getEnable(Reader& /*in*/, Writer& out, CallContext& /*context*/) {
    bool enabled = false;
    const HResult result = group_.isEnabled(enabled);
    out.u32(result == S_OK && enabled ? 1 : 0);
    out.hresult(result);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
