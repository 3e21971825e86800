#include "opcda/wire/AsyncIoInterface.h"

#include "opcda/Application.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/WireVariant.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

AsyncIoInterface::AsyncIoInterface(OpcGroupObject& object) : group_(object.group()) {}

Fault AsyncIoInterface::begin(bool isWrite, Reader& in, Writer& out) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const Recipient to = Recipient::stream(in.u32());
    const std::uint16_t source = isWrite ? std::uint16_t{0} : in.u16();
    const std::uint32_t count = in.u32();
    std::uint32_t transaction = 0;
    HResult result = E_OUTOFMEMORY;
    if (count <= group_.application().itemsPerCall()) {
        readU32Array(in, count, buffers->handles);
        if (isWrite) {
            skipVariantArray(in, count);
        }
        if (!in.good()) {
            return Fault::BadStubData;
        }
        result = isWrite ? group_.asyncWrite(buffers->handles, to, transaction, buffers->errors)
                         : group_.asyncReadFrom(source, buffers->handles, to, transaction, buffers->errors);
    }
    out.u32(transaction);
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault AsyncIoInterface::read(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(false, in, out);
}

Fault AsyncIoInterface::write(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(true, in, out);
}

Fault AsyncIoInterface::refresh(Reader& in, Writer& out, CallContext& /*context*/) {
    const Recipient to = Recipient::stream(in.u32());
    const std::uint16_t source = in.u16();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::uint32_t transaction = 0;
    const HResult result = group_.refresh(source, to, transaction);
    out.u32(transaction);
    out.hresult(result);
    return Fault::None;
}

Fault AsyncIoInterface::cancel(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t transaction = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(group_.cancelStream(transaction));
    return Fault::None;
}

}  // namespace quelm::opcda::wire
