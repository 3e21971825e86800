#include "opcda/wire/CommonInterface.h"

#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

std::uint32_t CommonInterface::setLocale(Server& server, Reader& in, Writer& out,
                                         dcom::orpc::CallContext& /*context*/) {
    const std::uint32_t locale = in.u32();
    if (!in.good()) {
        return faultBadStubData;
    }
    out.u32(server.setLocale(locale));
    return 0;
}

std::uint32_t CommonInterface::getLocale(Server& server, Reader& /*in*/, Writer& out,
                                         dcom::orpc::CallContext& /*context*/) {
    out.u32(server.locale());
    out.u32(S_OK);
    return 0;
}

std::uint32_t CommonInterface::availableLocales(Server& /*server*/, Reader& /*in*/, Writer& out,
                                                dcom::orpc::CallContext& /*context*/) {
    const auto locales = Server::availableLocales();
    out.u32(static_cast<std::uint32_t>(locales.size()));
    writeU32Array(out, locales);
    out.u32(S_OK);
    return 0;
}

std::uint32_t CommonInterface::getErrorString(Server& server, Reader& in, Writer& out,
                                              dcom::orpc::CallContext& /*context*/) {
    const HResult code = in.u32();
    if (!in.good()) {
        return faultBadStubData;
    }
    std::string_view text;
    const HResult result = server.errorString(code, server.locale(), text);
    writeStringOrNull(out, result, text);
    out.u32(result);
    return 0;
}

std::uint32_t CommonInterface::setClientName(Server& server, Reader& in, Writer& out,
                                             dcom::orpc::CallContext& /*context*/) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return faultBadStubData;
    }
    server.setClientName(name);
    out.u32(S_OK);
    return 0;
}

}  // namespace quelm::opcda::wire
