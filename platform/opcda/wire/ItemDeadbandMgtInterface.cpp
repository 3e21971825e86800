#include "opcda/wire/ItemDeadbandMgtInterface.h"

#include "opcda/Application.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

ItemDeadbandMgtInterface::ItemDeadbandMgtInterface(OpcGroupObject& object) : group_(object.group()) {}

Fault ItemDeadbandMgtInterface::refuse(Deadbands deadbands, Reader& in, Writer& out) {
    const CallBuffers::Loan buffers(group_.application().callBuffers());
    const std::uint32_t count = in.u32();
    HResult result = E_OUTOFMEMORY;
    if (count <= group_.application().itemsPerCall()) {
        readU32Array(in, count, buffers->handles);
        if (deadbands == Deadbands::Given) {
            readU32Array(in, count, buffers->numbers);  // floats, which make no difference
        }
        if (!in.good()) {
            return Fault::BadStubData;
        }
        result = group_.refuseDeadbands(buffers->handles, buffers->errors);
    }
    if (deadbands == Deadbands::AskedFor && failed(result)) {
        out.nullPointer();
    } else if (deadbands == Deadbands::AskedFor) {
        buffers->numbers.assign(count, 0);
        writeU32Array(out, buffers->numbers);
    }
    writeErrors(out, result, buffers->errors);
    return Fault::None;
}

Fault ItemDeadbandMgtInterface::set(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    return refuse(Deadbands::Given, in, out);
}

Fault ItemDeadbandMgtInterface::get(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    return refuse(Deadbands::AskedFor, in, out);
}

Fault ItemDeadbandMgtInterface::clear(Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    return refuse(Deadbands::Neither, in, out);
}

}  // namespace quelm::opcda::wire
