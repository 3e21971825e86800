#include "opcda/wire/ItemSamplingMgtInterface.h"

#include "opcda/Application.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

namespace {

// Beside the errors: nothing where the call as a whole failed.
void writeRates(Writer& out, HResult result, const std::vector<std::uint32_t>& rates) {
    if (failed(result)) {
        out.nullPointer();
    } else {
        writeU32Array(out, rates);
    }
}

}  // namespace

ItemSamplingMgtInterface::ItemSamplingMgtInterface(OpcGroupObject& object) : group_(object.group()) {}

// The handles, and the numbers that go with them. E_OUTOFMEMORY: more than one call may have, and nothing is read.
HResult ItemSamplingMgtInterface::readItems(Second second, Reader& in, CallBuffers& buffers) {
    const std::uint32_t count = in.u32();
    if (count > group_.application().itemsPerCall()) {
        return E_OUTOFMEMORY;
    }
    readU32Array(in, count, buffers.handles);
    if (second == Second::Given) {
        readU32Array(in, count, buffers.wanted);
    }
    return S_OK;
}

Fault ItemSamplingMgtInterface::setRate(Reader& in, Writer& out, CallContext& /*context*/) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    HResult result = readItems(Second::Given, in, *buffers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (!failed(result)) {
        result = group_.setSamplingRates(buffers->handles, buffers->wanted, buffers->numbers, buffers->errors);
    }
    writeRates(out, result, buffers->numbers);
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemSamplingMgtInterface::getRate(Reader& in, Writer& out, CallContext& /*context*/) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    HResult result = readItems(Second::None, in, *buffers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (!failed(result)) {
        result = group_.samplingRates(buffers->handles, buffers->numbers, buffers->errors);
    }
    writeRates(out, result, buffers->numbers);
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemSamplingMgtInterface::clearRate(Reader& in, Writer& out, CallContext& /*context*/) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    HResult result = readItems(Second::None, in, *buffers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (!failed(result)) {
        result = group_.clearSamplingRates(buffers->handles, buffers->errors);
    }
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemSamplingMgtInterface::setBuffer(Reader& in, Writer& out, CallContext& /*context*/) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const HResult result = readItems(Second::Given, in, *buffers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    writeErrors(out, group_.isRemoved() ? E_FAIL : failed(result) ? result : OPC_E_NOBUFFERING, {});
    return Fault::None;
}

Fault ItemSamplingMgtInterface::getBuffer(Reader& in, Writer& out, CallContext& /*context*/) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const HResult result = readItems(Second::None, in, *buffers);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.nullPointer();
    writeErrors(out, group_.isRemoved() ? E_FAIL : failed(result) ? result : OPC_E_NOBUFFERING, {});
    return Fault::None;
}

}  // namespace quelm::opcda::wire
