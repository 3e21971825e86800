#include "opcda/wire/ServerListInterface.h"

#include <algorithm>

#include "base/Text.h"
#include "opcda/wire/Parameters.h"
#include "opcda/wire/ServerListObject.h"
#include "slikda/Identity.h"

namespace quelm::opcda::wire {

using dcom::Fault;
using dcom::ndr::Reader;
using dcom::ndr::Writer;
using dcom::orpc::CallContext;

namespace {

constexpr std::size_t uuidSize = 16;

constexpr Uuid ourClass = Uuid::parse(identity::classId);
// What the one server offers.
constexpr std::array categories{
    "63D5F430-CFE4-11D1-B2C8-0060083BA1FB"_uuid,  // data access 1.0
    "63D5F432-CFE4-11D1-B2C8-0060083BA1FB"_uuid,  // data access 2.0
    "CC603642-66D7-48F1-B69A-B625E73652D7"_uuid,  // data access 3.0
};

// A name without its version, which stays the same from version to version.
constexpr std::string_view versionIndependent = identity::progId.substr(0, identity::progId.rfind('.'));

// Count, conformance and elements; a client leaves out the conformance of an array that ends the parameters empty.
std::vector<Uuid> readUuids(Reader& in) {
    const std::uint32_t count = in.u32();
    std::vector<Uuid> uuids;
    if (count == 0 && in.remaining() == 0) {
        return uuids;
    }
    if (readConformance(in, count, uuidSize)) {
        uuids.resize(count);
        for (Uuid& uuid : uuids) {
            uuid = in.uuid();
        }
    }
    return uuids;
}

bool isOffered(const Uuid& category) {
    return std::find(categories.begin(), categories.end(), category) != categories.end();
}

}  // namespace

template <const Uuid& ownIid>
EnumGuid<ownIid>::EnumGuid(Enumerator<Uuid> classes, Hold memory)
    : ListEnumerator<EnumGuid, Uuid>(ownIid, std::move(classes), std::move(memory)) {}

template <const Uuid& ownIid>
void EnumGuid<ownIid>::next(std::uint32_t wanted, Writer& out, CallContext& /*context*/) {
    const auto part = this->list_.next(wanted);
    out.u32(wanted);
    out.u32(0);
    out.u32(static_cast<std::uint32_t>(part.size()));
    for (const Uuid& uuid : part) {
        out.uuid(uuid);
    }
    out.u32(static_cast<std::uint32_t>(part.size()));
    out.hresult(part.size() < wanted ? S_FALSE : S_OK);
}

template class EnumGuid<iidEnumGuid>;
template class EnumGuid<iidOpcEnumGuid>;

// Of the categories that a class implements any will do, and none that is asked for any class at all. A class that
// requires something of its clients would have to be left out unless that is among what they offer; this one doesn't.
template <bool younger>
Fault ServerListInterface<younger>::enumClasses(Reader& in, Writer& out, CallContext& context) {
    const std::vector<Uuid> implemented = readUuids(in);
    readUuids(in);  // required
    if (!in.good()) {
        return Fault::BadStubData;
    }
    std::vector<Uuid> classes;
    if (implemented.empty() || std::any_of(implemented.begin(), implemented.end(), isOffered)) {
        classes.push_back(ourClass);
    }
    using ClassEnumerator = std::conditional_t<younger, EnumGuid<iidOpcEnumGuid>, EnumGuid<iidEnumGuid>>;
    out.hresult(writeEnumerator<ClassEnumerator>(out, context, younger ? iidOpcEnumGuid : iidEnumGuid, object_.memory(),
                                                 Enumerator(std::move(classes)), S_OK));
    return Fault::None;
}

template <bool younger>
Fault ServerListInterface<younger>::getDetails(Reader& in, Writer& out, CallContext& /*context*/) {
    const Uuid classId = in.uuid();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    const HResult result = classId == ourClass ? S_OK : REGDB_E_CLASSNOTREG;
    writeStringOrNull(out, result, identity::progId);
    writeStringOrNull(out, result, identity::description);
    if (younger) {
        writeStringOrNull(out, result, versionIndependent);
    }
    out.hresult(result);
    return Fault::None;
}

template <bool younger>
Fault ServerListInterface<younger>::classOf(Reader& in, Writer& out, CallContext& /*context*/) {
    const std::string name = in.wideString();
    if (!in.good()) {
        return Fault::BadStubData;
    }
    const bool isOurs = equalsIgnoringCase(name, identity::progId) || equalsIgnoringCase(name, versionIndependent);
    out.uuid(isOurs ? ourClass : Uuid{});
    out.hresult(isOurs ? S_OK : CO_E_CLASSSTRING);
    return Fault::None;
}

template class ServerListInterface<false>;
template class ServerListInterface<true>;

}  // namespace quelm::opcda::wire
