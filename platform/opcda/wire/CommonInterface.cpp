#include "opcda/wire/CommonInterface.h"

#include "opcda/wire/Parameters.h"

namespace quelm::opcda::wire {

using dcom::ndr::Reader;
using dcom::ndr::Writer;

namespace {

enum Opnum : std::uint16_t {
    SetLocaleId = 3,
    GetLocaleId = 4,
    QueryAvailableLocaleIds = 5,
    GetErrorString = 6,
    SetClientName = 7,
};

std::uint32_t setLocale(Server& server, Reader& in, Writer& out) {
    const std::uint32_t locale = in.u32();
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    out.u32(server.setLocale(locale));
    return 0;
}

std::uint32_t availableLocales(Writer& out) {
    const auto locales = Server::availableLocales();
    out.u32(static_cast<std::uint32_t>(locales.size()));
    writeU32Array(out, locales);
    out.u32(S_OK);
    return 0;
}

std::uint32_t getErrorString(const Server& server, Reader& in, Writer& out) {
    const HResult code = in.u32();
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    std::string_view text;
    const HResult result = server.errorString(code, server.locale(), text);
    writeStringOrNull(out, result, text);
    out.u32(result);
    return 0;
}

std::uint32_t setClientName(Server& server, Reader& in, Writer& out) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return dcom::faultBadStubData;
    }
    server.setClientName(name);
    out.u32(S_OK);
    return 0;
}

}  // namespace

std::uint32_t CommonInterface::call(Server& server, std::uint16_t opnum, Reader& in, Writer& out,
                                    dcom::orpc::CallContext& /*context*/) {
    switch (opnum) {
        case SetLocaleId:
            return setLocale(server, in, out);
        case GetLocaleId:
            out.u32(server.locale());
            out.u32(S_OK);
            return 0;
        case QueryAvailableLocaleIds:
            return availableLocales(out);
        case GetErrorString:
            return getErrorString(server, in, out);
        case SetClientName:
            return setClientName(server, in, out);
        default:
            return dcom::faultOpnumRange;
    }
}

}  // namespace quelm::opcda::wire
