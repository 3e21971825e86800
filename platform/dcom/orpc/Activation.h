#pragma once

// Makes objects for clients that ask for them by their class, in the two forms in which clients ask.

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "dcom/orpc/ActivationProperties.h"
#include "dcom/orpc/ComObject.h"
#include "dcom/orpc/MethodTable.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

// The classes that clients may ask for.
class ClassRegistry {
 public:
    // Replaces an earlier factory of the same class.
    void add(std::shared_ptr<ClassFactory> factory);
    // nullptr when there is no such class.
    std::shared_ptr<ClassFactory> find(const Uuid& classId) const;

 private:
    std::unordered_map<Uuid, std::shared_ptr<ClassFactory>> factories_;
};

class Activation {
 public:
    // Both must outlive the activation.
    Activation(ObjectExporter& exporter, ClassRegistry& classes) : exporter_(exporter), classes_(classes) {}

    // RemoteActivation, the older form, with everything in plain parameters.
    Fault invokeActivation(const rpc::Call& call, ndr::Writer& out);
    // RemoteGetClassObject and RemoteCreateInstance, the younger form, with property blobs.
    Fault invokeScmActivator(const rpc::Call& call, ndr::Writer& out);

 private:
    using Method = Fault (Activation::*)(const rpc::Call&, ndr::Reader&, ndr::Writer&);
    using Row = MethodRow<Method>;

    Fault invoke(Method method, const rpc::Call& call, ndr::Writer& out);
    Fault remoteActivation(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault getClassObject(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault createInstance(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out);
    Fault activateByProperties(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out, bool classObject);
    ActivationAnswer activate(const rpc::Call& call, const ActivationRequest& request);
    bool isProtectedFor(const rpc::Call& call, const ActivationRequest& request) const;
    HResult makeObject(const rpc::Call& call, const ActivationRequest& request, std::shared_ptr<ComObject>& object);
    HResult exportInterfaces(const rpc::Call& call, const std::shared_ptr<ComObject>& object,
                             std::vector<ActivatedInterface>& interfaces);

    ObjectExporter& exporter_;
    ClassRegistry& classes_;

 public:
    static constexpr std::array activationMethods{
        Row{ActivationCall::RemoteActivation, "RemoteActivation", &Activation::remoteActivation},
    };
    static constexpr std::array scmActivatorMethods{
        Row{ScmActivatorCall::GetClassObject, "RemoteGetClassObject", &Activation::getClassObject},
        Row{ScmActivatorCall::CreateInstance, "RemoteCreateInstance", &Activation::createInstance},
    };
};

}  // namespace quelm::dcom::orpc
