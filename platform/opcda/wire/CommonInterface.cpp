#include "opcda/wire/CommonInterface.h"

#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;

Fault CommonInterface::setLocale(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const std::uint32_t locale = in.u32();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.hresult(server.setLocale(locale));
    return Fault::None;
}

Fault CommonInterface::getLocale(Server& server, Reader& /*in*/, Writer& out, dcom::orpc::CallContext& /*context*/) {
    out.u32(server.locale());
    out.hresult(S_OK);
    return Fault::None;
}

Fault CommonInterface::availableLocales(Server& /*server*/, Reader& /*in*/, Writer& out,
                                        dcom::orpc::CallContext& /*context*/) {
    const auto locales = Server::availableLocales();
    out.u32(static_cast<std::uint32_t>(locales.size()));
    writeU32Array(out, locales);
    out.hresult(S_OK);
    return Fault::None;
}

Fault CommonInterface::getErrorString(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const HResult code = in.hresult();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::string_view text;
    const HResult result = server.errorString(code, server.locale(), text);
    writeStringOrNull(out, result, text);
    out.hresult(result);
    return Fault::None;
}

Fault CommonInterface::setClientName(Server& server, Reader& in, Writer& out, dcom::orpc::CallContext& /*context*/) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    server.setClientName(name);
    out.hresult(S_OK);
    return Fault::None;
}

}  // namespace quelm::opcda::wire
