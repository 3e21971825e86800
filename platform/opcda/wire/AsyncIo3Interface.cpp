#include "opcda/wire/AsyncIo3Interface.h"

#include "opcda/Group.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

Fault AsyncIo3Interface::readMaxAge(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(Given::MaxAges, in, out);
}

Fault AsyncIo3Interface::writeVqt(Reader& in, Writer& out, CallContext& /*context*/) {
    return begin(Given::Vqts, in, out);
}

Fault AsyncIo3Interface::refreshMaxAge(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::uint32_t maxAge = in.u32();
    const std::uint32_t transaction = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::uint32_t cancelId = 0;
    const HResult result = group().refreshMaxAge(maxAge, transaction, cancelId);
    out.u32(cancelId);
    out.hresult(result);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
