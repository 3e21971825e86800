#pragma once

// Takes the calls that arrive on the object port to the objects that they are meant for.

#include <cstdint>
#include <functional>

#include "dcom/orpc/ObjectExporter.h"
#include "dcom/orpc/RemUnknown.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class OrpcHandler final : public rpc::CallHandler {
 public:
    // knownInterface tells whether any class of the owner has this interface, so that clients may bind to it;
    // openInterface, whether an object that is open to all has it.
    // The exporter must outlive the handler.
    OrpcHandler(ObjectExporter& exporter, std::function<bool(const Uuid&)> knownInterface,
                std::function<bool(const Uuid&)> openInterface = {});

    bool supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t versionMinor) override;
    // Where objects are open to all, so are their interfaces and COM's own, by which they are held. The objects
    // themselves are looked at when they are called.
    bool isOpenToAll(const Uuid& interfaceId) override;
    Fault call(const rpc::Call& call, ndr::Writer& reply) override;
    bool holdsAnything(const rpc::Peer& peer) const override { return exporter_.isHolding(peer); }
    void connectionClosed(const rpc::Peer& peer, bool abrupt) override;

 private:
    Fault dispatch(const rpc::Call& call, ndr::Writer& reply);
    Fault callObject(const rpc::Call& call, ndr::Reader& in, ndr::Writer& reply);

    ObjectExporter& exporter_;
    RemUnknown remUnknown_;
    std::function<bool(const Uuid&)> knownInterface_;
    std::function<bool(const Uuid&)> openInterface_;
};

// What a method may do while it runs: hand out objects to the client that called it.
class ExporterContext final : public CallContext {
 public:
    ExporterContext(ObjectExporter& exporter, const rpc::Call& call) : exporter_(exporter), call_(call) {}

    HResult writeInterface(ndr::Writer& out, const std::shared_ptr<ComObject>& object, const Uuid& iid) override;
    const rpc::Peer& peer() const override { return call_.peer; }
    const std::string& account() const override { return call_.account; }
    std::shared_ptr<DeferredReply> defer(const ndr::Writer& out) override {
        const auto head = out.written();
        return std::make_shared<DeferredReply>(call_.defer(), std::vector<std::uint8_t>(head.begin(), head.end()));
    }

 private:
    ObjectExporter& exporter_;
    const rpc::Call& call_;
};

// The fault for a call that an exception ended; to be called while it is being handled. Leaves a line in the log.
Fault faultOfException(ObjectExporter& exporter, const rpc::Call& call) noexcept;

}  // namespace quelm::dcom::orpc
