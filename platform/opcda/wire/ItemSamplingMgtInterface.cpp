#include "opcda/wire/ItemSamplingMgtInterface.h"

#include "opcda/Application.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

ItemSamplingMgtInterface::ItemSamplingMgtInterface(OpcGroupObject& object) : group_(object.group()) {}

// ask: gives the call's result, and fills the numbers and errors of the loan.
template <class Ask>
Fault ItemSamplingMgtInterface::answer(Wanted wanted, Given given, Reader& in, Writer& out, Ask&& ask) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const std::uint32_t count = in.u32();
    HResult result = E_OUTOFMEMORY;
    if (count <= group_.application().itemsPerCall()) {
        readU32Array(in, count, buffers->handles);
        if (wanted == Wanted::Numbers) {
            readU32Array(in, count, buffers->wanted);
        }
        if (!in.good()) {
            return Fault::BadStubData;
        }
        result = ask(*buffers);
    }
    if (given == Given::Numbers && failed(result)) {
        out.nullPointer();
    } else if (given == Given::Numbers) {
        writeU32Array(out, buffers->numbers);
    }
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemSamplingMgtInterface::setRate(Reader& in, Writer& out, CallContext& /*context*/) {
    return answer(Wanted::Numbers, Given::Numbers, in, out, [this](CallBuffers& buffers) {
        return group_.setSamplingRates(buffers.handles, buffers.wanted, buffers.numbers, buffers.errors);
    });
}

Fault ItemSamplingMgtInterface::getRate(Reader& in, Writer& out, CallContext& /*context*/) {
    return answer(Wanted::Nothing, Given::Numbers, in, out, [this](CallBuffers& buffers) {
        return group_.samplingRates(buffers.handles, buffers.numbers, buffers.errors);
    });
}

Fault ItemSamplingMgtInterface::clearRate(Reader& in, Writer& out, CallContext& /*context*/) {
    return answer(Wanted::Nothing, Given::Errors, in, out,
                  [this](CallBuffers& buffers) { return group_.clearSamplingRates(buffers.handles, buffers.errors); });
}

Fault ItemSamplingMgtInterface::setBuffer(Reader& in, Writer& out, CallContext& /*context*/) {
    return answer(Wanted::Numbers, Given::Errors, in, out,
                  [this](CallBuffers&) { return group_.isRemoved() ? E_FAIL : OPC_E_NOBUFFERING; });
}

Fault ItemSamplingMgtInterface::getBuffer(Reader& in, Writer& out, CallContext& /*context*/) {
    return answer(Wanted::Nothing, Given::Numbers, in, out,
                  [this](CallBuffers&) { return group_.isRemoved() ? E_FAIL : OPC_E_NOBUFFERING; });
}

}  // namespace quelm::opcda::wire
