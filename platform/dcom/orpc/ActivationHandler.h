#pragma once

// Takes the calls that arrive on the activation port (135) to activation and resolver.

#include <cstdint>

#include "dcom/orpc/Activation.h"
#include "dcom/orpc/Resolver.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::orpc {

class ActivationHandler final : public rpc::CallHandler {
 public:
    // Both must outlive the handler.
    ActivationHandler(ObjectExporter& exporter, ClassRegistry& classes)
        : exporter_(exporter), activation_(exporter, classes), resolver_(exporter) {}

    bool supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t versionMinor) override;
    bool isOpenToAll(const Uuid& interfaceId) override;
    Fault call(const rpc::Call& call, ndr::Writer& reply) override;
    // No client is judged by these connections: most of them close right after the one answer that they are for.
    void connectionClosed(const rpc::Peer& peer, bool abrupt) override;

 private:
    Fault dispatch(const rpc::Call& call, ndr::Writer& reply);

    ObjectExporter& exporter_;
    Activation activation_;
    Resolver resolver_;
};

}  // namespace quelm::dcom::orpc
