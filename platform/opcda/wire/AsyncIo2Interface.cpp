#include "opcda/wire/AsyncIo2Interface.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

std::uint32_t AsyncIo2Interface::refuseBegin(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    out.u32(0);  // cancel ID
    out.nullPointer();
    return refuse(in, out, context);
}

std::uint32_t AsyncIo2Interface::refuseNumber(Reader& in, Writer& out, dcom::orpc::CallContext& context) {
    out.u32(0);  // cancel ID; callbacks enabled
    return refuse(in, out, context);
}

std::uint32_t AsyncIo2Interface::refuse(Reader& /*in*/, Writer& out, dcom::orpc::CallContext& /*context*/) {
    out.u32(E_NOTIMPL);
    return 0;
}

}  // namespace quelm::opcda::wire
