#include "dcom/orpc/Activation.h"

#include <fmt/format.h>

#include <exception>
#include <utility>

#include "dcom/orpc/Resolver.h"

namespace quelm::dcom::orpc {

namespace {

constexpr std::uint32_t getClassObjectMode = 0xFFFFFFFF;

// An instance of the class; empty with the reason in result, which is then a failure.
std::shared_ptr<ComObject> makeInstance(ObjectExporter& exporter, ClassFactory& factory, const rpc::Peer& peer,
                                        const std::string& account, HResult& result) {
    std::shared_ptr<ComObject> object;
    result = S_OK;
    try {
        object = factory.create(peer, account, result);
    } catch (const std::exception& error) {
        exporter.writeLog(fmt::format("Class {} could not make an object for {} ({}): {}", factory.classId().toText(),
                                      peer.remoteAddress, account, error.what()));
    }
    if (object == nullptr) {
        result = failed(result) ? result : E_FAIL;
    } else {
        result = S_OK;
    }
    return object;
}

// The class object as a client sees it.
class ClassObject final : public ComObject, public Dispatched<ClassObject> {
 public:
    ClassObject(ObjectExporter& exporter, std::shared_ptr<ClassFactory> factory)
        : exporter_(exporter), factory_(std::move(factory)) {}

    Interface* queryInterface(const Uuid& iid) override { return iid == iidClassFactory ? this : nullptr; }
    bool isOpenToAll() const override { return factory_->isOpenToAll(); }
    void disconnected() override { hold_ = nullptr; }

 private:
    Fault createInstance(ndr::Reader& in, ndr::Writer& out, CallContext& context) {
        const Uuid iid = in.uuid();
        if (!in.good()) {
            return Fault::BadStubData;
        }
        HResult result = S_OK;
        const auto object = makeInstance(exporter_, *factory_, context.peer(), context.account(), result);
        if (object == nullptr) {
            out.nullPointer();
        } else if (result = context.writeInterface(out, object, iid); failed(result)) {
            exporter_.dismiss(object);
        }
        out.hresult(result);
        return Fault::None;
    }

    // Locks are counted by client, as each client has a class object of its own, and end with it.
    Fault lockServer(ndr::Reader& in, ndr::Writer& out, CallContext& /*context*/) {
        const bool lock = in.u32() != 0;
        if (!in.good()) {
            return Fault::BadStubData;
        }
        if (lock && hold_ == nullptr) {
            hold_ = factory_->holdServer();
        }
        const bool possible = hold_ != nullptr;
        if (possible) {
            locks_ = lock ? locks_ + 1 : locks_ - 1;
        }
        if (locks_ == 0) {
            hold_ = nullptr;
        }
        out.hresult(possible ? S_OK : E_FAIL);
        return Fault::None;
    }

    ObjectExporter& exporter_;
    std::shared_ptr<ClassFactory> factory_;
    std::uint64_t locks_ = 0;
    std::shared_ptr<void> hold_;  // while there are locks

 public:
    static constexpr std::array methods{
        Row{ClassFactoryCall::CreateInstance, "CreateInstance", &ClassObject::createInstance},
        Row{ClassFactoryCall::LockServer, "LockServer", &ClassObject::lockServer},
    };
};

// RemoteActivation's parameters. Latches the reader's fault when they don't decode.
ActivationRequest readRemoteActivation(ndr::Reader& in) {
    ActivationRequest request;
    request.classId = in.uuid();
    if (in.pointer()) {
        in.wideString();  // object name: there are no objects that live in files
    }
    if (in.pointer()) {
        readInterfacePointer(in);  // nor in storages
    }
    in.u32();  // impersonation level
    request.classObject = in.u32() == getClassObjectMode;
    const std::uint32_t stated = in.u32();
    if (in.pointer()) {
        request.iids.resize(in.count(uuidSize));
        for (Uuid& iid : request.iids) {
            iid = in.uuid();
        }
    }
    if (request.iids.size() != stated) {
        in.fail();
    }
    const std::uint16_t protocols = in.u16();
    const std::uint32_t protocolSlots = in.count(sizeof(std::uint16_t));
    if (protocols > protocolSlots) {
        in.fail();
    }
    in.bytes(protocols * sizeof(std::uint16_t));
    return request;
}

void failAll(std::vector<ActivatedInterface>& interfaces, HResult result) {
    for (ActivatedInterface& entry : interfaces) {
        entry.result = result;
        entry.reference = {};
    }
}

}  // namespace

void ClassRegistry::add(std::shared_ptr<ClassFactory> factory) {
    const Uuid classId = factory->classId();
    factories_[classId] = std::move(factory);
}

std::shared_ptr<ClassFactory> ClassRegistry::find(const Uuid& classId) const {
    const auto found = factories_.find(classId);
    return found == factories_.end() ? nullptr : found->second;
}

Fault Activation::invokeActivation(const rpc::Call& call, ndr::Writer& out) {
    return invoke(methodOf<activationMethods>(call.opnum), call, out);
}

Fault Activation::invokeScmActivator(const rpc::Call& call, ndr::Writer& out) {
    return invoke(methodOf<scmActivatorMethods>(call.opnum), call, out);
}

Fault Activation::invoke(Method method, const rpc::Call& call, ndr::Writer& out) {
    if (method == nullptr) {
        return Fault::OpnumRange;
    }
    ndr::Reader in(call.stub);
    const OrpcThis header = readOrpcThis(in);
    if (header.fault != Fault::None) {
        return header.fault;
    }
    writeOrpcThat(out, header);
    return (this->*method)(call, in, out);
}

Fault Activation::getClassObject(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    return activateByProperties(call, in, out, true);
}

Fault Activation::createInstance(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    if (!in.pointer()) {
        return activateByProperties(call, in, out, false);
    }
    readInterfacePointer(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    out.nullPointer();
    out.hresult(CLASS_E_NOAGGREGATION);
    return Fault::None;
}

Fault Activation::activateByProperties(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out, bool classObject) {
    const bool hasProperties = in.pointer();
    const auto properties = hasProperties ? readInterfacePointer(in) : std::span<const std::uint8_t>{};
    if (!in.good()) {
        return Fault::BadStubData;
    }
    ActivationRequest request;
    if (!readActivationProperties(properties, request)) {
        out.nullPointer();
        out.hresult(E_INVALIDARG);
        return Fault::None;
    }
    request.classObject = classObject;
    if (!isProtectedFor(call, request)) {
        return Fault::AccessDenied;
    }
    const ActivationAnswer answer = activate(call, request);
    if (failed(answer.result)) {
        out.nullPointer();
    } else {
        out.pointer();
        writeActivationProperties(out, answer, exporter_.objectBindings(call.peer),
                                  exporter_.resolverBindings(call.peer));
    }
    out.hresult(answer.result);
    return Fault::None;
}

// The reply is complete on failure as well: clients read all of it before they look at the outcome. A test program
// exists that breaks down over the successful one in its own memory; its strict decoder by itself takes the reply
// whole.
Fault Activation::remoteActivation(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out) {
    const ActivationRequest request = readRemoteActivation(in);
    if (!in.good()) {
        return Fault::BadStubData;
    }
    if (!isProtectedFor(call, request)) {
        return Fault::AccessDenied;
    }
    const ActivationAnswer answer = activate(call, request);
    out.u64(answer.oxid);
    exporter_.objectBindings(call.peer).writePointed(out);
    out.uuid(answer.remUnknownIpid);
    out.u32(answer.levelHint);
    writeComVersion(out);
    out.hresult(answer.result);
    writeInterfacePointers(out, answer.interfaces, exporter_.resolverBindings(call.peer));
    out.u32(static_cast<std::uint32_t>(answer.interfaces.size()));
    for (const ActivatedInterface& entry : answer.interfaces) {
        out.hresult(entry.result);
    }
    out.u32(0);  // the service itself worked
    return Fault::None;
}

ActivationAnswer Activation::activate(const rpc::Call& call, const ActivationRequest& request) {
    ActivationAnswer answer;
    answer.oxid = exporter_.oxid();
    answer.remUnknownIpid = exporter_.remUnknownIpid();
    // Who came without a log-on to what is open to all has none for the object either.
    answer.levelHint = exporter_.isProtectedFor(false, call.level) ? levelHint(exporter_, call)
                                                                   : static_cast<std::uint32_t>(call.level);
    for (const Uuid& iid : request.iids) {
        answer.interfaces.push_back({iid, S_OK, {}});
    }
    std::shared_ptr<ComObject> object;
    answer.result = makeObject(call, request, object);
    if (failed(answer.result)) {
        failAll(answer.interfaces, answer.result);
    } else {
        answer.result = exportInterfaces(call, object, answer.interfaces);
    }
    return answer;
}

bool Activation::isProtectedFor(const rpc::Call& call, const ActivationRequest& request) const {
    const auto factory = classes_.find(request.classId);
    return exporter_.isProtectedFor(factory != nullptr && factory->isOpenToAll(), call.level);
}

HResult Activation::makeObject(const rpc::Call& call, const ActivationRequest& request,
                               std::shared_ptr<ComObject>& object) {
    if (request.iids.empty() || request.iids.size() > maximumInterfaces) {
        return E_INVALIDARG;
    }
    const auto factory = classes_.find(request.classId);
    if (factory == nullptr) {
        return REGDB_E_CLASSNOTREG;
    }
    if (request.classObject) {
        object = std::make_shared<ClassObject>(exporter_, factory);
        return S_OK;
    }
    HResult result = S_OK;
    object = makeInstance(exporter_, *factory, call.peer, call.account, result);
    return result;
}

HResult Activation::exportInterfaces(const rpc::Call& call, const std::shared_ptr<ComObject>& object,
                                     std::vector<ActivatedInterface>& interfaces) {
    const ClientId client = exporter_.newClient(call.peer, call.account);
    HResult refusal = E_NOINTERFACE;
    bool any = false;
    for (ActivatedInterface& entry : interfaces) {
        entry.result = exporter_.addReference(client, object, entry.iid, referencesPerPointer, entry.reference);
        any |= !failed(entry.result);
        refusal = entry.result == E_OUTOFMEMORY ? E_OUTOFMEMORY : refusal;
    }
    if (any) {
        return S_OK;
    }
    exporter_.discard(client);
    exporter_.dismiss(object);
    return refusal;
}

}  // namespace quelm::dcom::orpc
