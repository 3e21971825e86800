#include "opcda/wire/AsyncIo2Interface.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

Fault AsyncIo2Interface::refuseBegin(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    out.u32(0);  // cancel ID
    out.nullPointer();
    return refuse(in, out, context);
}

Fault AsyncIo2Interface::refuseNumber(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    out.u32(0);  // cancel ID; callbacks enabled
    return refuse(in, out, context);
}

Fault AsyncIo2Interface::refuse(Reader& /*in*/, Writer& out, dcom::orpc::CallContext& /*context*/) {
    out.hresult(E_NOTIMPL);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
