#include "dcom/client/CallbackHost.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>

#include "base/TimeSource.h"
#include "dcom/client/Names.h"
#include "dcom/client/Trouble.h"
#include "dcom/rpc/Refusal.h"

namespace quelm::dcom::client {

namespace {

// A server needs one connection; another one pings.
constexpr std::size_t mostConnections = 32;
// Interfaces that one question may be for; servers ask for one.
constexpr std::size_t mostQueried = 64;
constexpr std::uint16_t wellKnownPort = 135;
constexpr std::uint16_t firstMethod = 3;  // after those of IUnknown

net::TcpSettings connectionSettings(const Core& core) {
    return {.maxConnections = mostConnections,
            .maxOfHost = mostConnections,
            .maxOfAccount = mostConnections,
            .onTrouble = [&core](std::string_view line) { core.trace(std::string(line)); }};
}

ntlm::AccountTable accountsFor(const Core& core) {
    ntlm::AccountTable accounts;
    for (const ntlm::ClientAccount& account : core.settings.callbackAccounts) {
        accounts.add(ntlm::AccountTable::anyDomain, account.user, account.hash);
    }
    if (core.logOn.account) {
        accounts.add(ntlm::AccountTable::anyDomain, core.logOn.account->user, core.logOn.account->hash);
    }
    return accounts;
}

}  // namespace

CallbackHost::CallbackHost(Core& core)
    : core_(core),
      accounts_(accountsFor(core)),
      protocol_(serverSettings()),
      server_(core.loop, core.loop, protocol_, connectionSettings(core)) {
    listen();
    exporter_.emplace(exporterSettings(), [] { return timeSource().monotonicMilliseconds(); });
    resolver_.emplace(*exporter_);
    core_.ownOxid = exporter_->oxid();
    core_.trace("the server is told to call back at " + address());
}

rpc::ServerSettings CallbackHost::serverSettings() {
    const bool isOpen = core_.settings.allowCallbacksWithoutLogOn;
    rpc::ServerSettings result{.accounts = accounts_,
                               .logOn = {},
                               .minimumLevel = isOpen ? rpc::AuthLevel::None : rpc::AuthLevel::Connect,
                               .onRefused = [this](const rpc::Refusal& refusal) { traceRefusal(refusal); },
                               .challenge = {}};
    result.logOn.computerName = computerName();
    result.logOn.domainName = "WORKGROUP";
    return result;
}

void CallbackHost::traceRefusal(const rpc::Refusal& refusal) const {
    core_.trace(fmt::format("{} wanted to call back and was refused (account '{}', level {}): {}",
                            refusal.peer.remoteAddress, refusal.account, rpc::levelName(refusal.level),
                            fmt::format(fmt::runtime(refusalText(refusal.reason)), refusal.detail)));
}

orpc::ExporterSettings CallbackHost::exporterSettings() const {
    orpc::ExporterSettings settings;
    settings.objectPort = port_;
    settings.activationPort = core_.settings.resolverPort == 0 ? port_ : core_.settings.resolverPort;
    settings.hostNames = {address_};
    settings.announcedAddress = core_.settings.callbackAddress;
    settings.minimumLevel = protocol_.minimumLevel;
    return settings;
}

void CallbackHost::listen() {
    const Settings& settings = core_.settings;
    const std::string own =
        settings.listenAddress.empty() ? ownAddressTowards(core_.serverAddress) : settings.listenAddress;
    address_ = settings.callbackAddress.empty() ? own : settings.callbackAddress;
    if (own.empty()) {
        throw Trouble(Trouble::Kind::Address, {},
                      "the address of this machine that leads to the server is not known; make an object of the server "
                      "first, or set the address to listen on");
    }
    try {
        port_ = server_.listen(own, settings.callbackPort, *this);
        if (settings.resolverPort != 0 && settings.resolverPort != port_) {
            server_.listen(own, settings.resolverPort, *this);
        }
    } catch (const net::ListenError& error) {
        throw Trouble(Trouble::Kind::Address, own, std::string("callbacks cannot come: ") + error.what());
    }
}

std::vector<std::uint8_t> CallbackHost::add(const Uuid& iid, ICallback& callback, const Uuid& marshalledAs) {
    const Object object{core_.random64(), core_.randomUuid(), core_.randomUuid(), iid, &callback};
    objects_.push_back(object);
    const std::uint16_t resolverPort = core_.settings.resolverPort == 0 ? port_ : core_.settings.resolverPort;
    std::vector<std::uint8_t> reference;
    ndr::Writer out(reference);
    out.u32(orpc::objectSignature);
    out.u32(orpc::standardReference);
    out.uuid(marshalledAs);
    orpc::writeObjectReference(out, {orpc::referencesPerPointer, exporter_->oxid(), object.oid,
                                     marshalledAs == iid ? object.ipid : object.unknown});
    // The well-known port is where everybody asks without being told.
    orpc::Bindings(address_, {}, resolverPort == wellKnownPort ? std::uint16_t{0} : resolverPort).write(out);
    return reference;
}

void CallbackHost::remove(const ICallback& callback) {
    std::erase_if(objects_, [&](const Object& object) { return object.callback == &callback; });
}

const CallbackHost::Object* CallbackHost::find(const Uuid& ipid) const {
    const auto found = std::find_if(objects_.begin(), objects_.end(), [&](const Object& object) {
        return object.ipid == ipid || object.unknown == ipid;
    });
    return found == objects_.end() ? nullptr : &*found;
}

// Those of objects that are gone too: a call tells of their end. Which object has the interface shows then.
bool CallbackHost::supports(const Uuid& /*interfaceId*/, std::uint16_t versionMajor, std::uint16_t /*versionMinor*/) {
    return versionMajor == 0;
}

Fault CallbackHost::call(const rpc::Call& call, ndr::Writer& reply) {
    wasCalled_ = true;
    if (call.interfaceId == orpc::iidObjectExporter) {
        return resolver_->invoke(call, reply);
    }
    try {
        return dispatch(call, reply);
    } catch (const std::exception& error) {
        core_.trace(fmt::format("method {} of interface {} failed here: {}", call.opnum, call.interfaceId.toText(),
                                error.what()));
        return Fault::Server;
    }
}

Fault CallbackHost::dispatch(const rpc::Call& call, ndr::Writer& reply) {
    ndr::Reader in(call.stub);
    const orpc::OrpcThis header = orpc::readOrpcThis(in);
    if (header.fault != Fault::None) {
        return header.fault;
    }
    orpc::writeOrpcThat(reply, header);
    if (call.hasObject && call.object == exporter_->remUnknownIpid()) {
        return callRemUnknown(call.opnum, in, reply);
    }
    const Object* const object = call.hasObject ? find(call.object) : nullptr;
    if (object == nullptr) {
        return Fault::Disconnected;
    }
    if (call.opnum < firstMethod || object->ipid != call.object) {
        return Fault::OpnumRange;
    }
    const HResult result = object->callback->called(call.opnum, in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    reply.hresult(result);
    return Fault::None;
}

// References are taken and given back without a count, see above.
Fault CallbackHost::callRemUnknown(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& reply) {
    switch (static_cast<orpc::RemUnknownCall>(opnum)) {
        case orpc::RemUnknownCall::QueryInterface:
            return queryInterface(in, reply);
        case orpc::RemUnknownCall::AddRef: {
            constexpr std::size_t changeSize = 24;
            in.u16();
            const std::uint32_t count = in.count(changeSize);
            reply.u32(count);
            for (std::uint32_t i = 0; i < count; ++i) {
                reply.hresult(S_OK);
            }
            break;
        }
        case orpc::RemUnknownCall::Release:
            break;
        default:
            return Fault::OpnumRange;
    }
    reply.hresult(S_OK);
    return in.good() ? Fault::None : Fault::BadStubData;
}

Fault CallbackHost::queryInterface(ndr::Reader& in, ndr::Writer& reply) {
    const Object* const object = find(in.uuid());
    const std::uint32_t references = in.u32();
    const std::uint16_t stated = in.u16();
    const std::uint32_t count = in.count(orpc::uuidSize);
    if (!in.good() || count != stated || count > mostQueried) {
        return Fault::BadStubData;
    }
    reply.pointer();
    reply.u32(count);
    HResult outcome = S_OK;
    for (std::uint32_t i = 0; i < count; ++i) {
        const Uuid iid = in.uuid();
        const bool isKnown = object != nullptr && (iid == object->iid || iid == orpc::iidUnknown);
        const HResult result = isKnown ? S_OK : object == nullptr ? RPC_E_DISCONNECTED : E_NOINTERFACE;
        orpc::ObjectReference reference;
        if (isKnown) {
            reference = {references, exporter_->oxid(), object->oid,
                         iid == object->iid ? object->ipid : object->unknown};
        }
        reply.align(8);
        reply.hresult(result);
        reply.align(8);
        orpc::writeObjectReference(reply, reference);
        outcome = isKnown ? outcome : result;
    }
    reply.hresult(outcome);
    return Fault::None;
}

}  // namespace quelm::dcom::client
