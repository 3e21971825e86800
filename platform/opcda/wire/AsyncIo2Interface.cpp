#include "opcda/wire/AsyncIo2Interface.h"

namespace quelm::opcda::wire {

namespace {

enum Opnum : std::uint16_t { Read = 3, Write = 4, Refresh2 = 5, Cancel2 = 6, SetEnable = 7, GetEnable = 8 };

}  // namespace

std::uint32_t AsyncIo2Interface::invoke(std::uint16_t opnum, dcom::ndr::Reader& /*in*/, dcom::ndr::Writer& out,
                                        dcom::orpc::CallContext& /*context*/) {
    switch (opnum) {
        case Read:
        case Write:
            out.u32(0);  // cancel ID
            out.nullPointer();
            break;
        case Refresh2:
        case GetEnable:
            out.u32(0);  // cancel ID; callbacks enabled
            break;
        case Cancel2:
        case SetEnable:
            break;
        default:
            return dcom::faultOpnumRange;
    }
    out.u32(dcom::E_NOTIMPL);
    return 0;
}

}  // namespace quelm::opcda::wire
