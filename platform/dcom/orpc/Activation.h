#pragma once

// Makes objects for clients that ask for them by their class, in the two forms in which clients ask.

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "dcom/orpc/ActivationProperties.h"
#include "dcom/orpc/ComObject.h"
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

    // RemoteActivation, the older form, with everything in plain parameters. Gives 0 or a fault status.
    std::uint32_t invokeActivation(const rpc::Call& call, ndr::Writer& out);
    // RemoteGetClassObject and RemoteCreateInstance, the younger form, with property blobs. Gives 0 or a fault status.
    std::uint32_t invokeScmActivator(const rpc::Call& call, ndr::Writer& out);

 private:
    std::uint32_t remoteActivation(const rpc::Call& call, ndr::Writer& out);
    std::uint32_t activateByProperties(const rpc::Call& call, ndr::Reader& in, ndr::Writer& out, bool classObject);
    ActivationAnswer activate(const rpc::Call& call, const ActivationRequest& request);
    HResult makeObject(const rpc::Call& call, const ActivationRequest& request, std::shared_ptr<ComObject>& object);
    HResult exportInterfaces(const rpc::Call& call, const std::shared_ptr<ComObject>& object,
                             std::vector<ActivatedInterface>& interfaces);

    ObjectExporter& exporter_;
    ClassRegistry& classes_;
};

}  // namespace quelm::dcom::orpc
