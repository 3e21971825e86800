#pragma once

// Makes a server object for each client that asks for the server's class.

#include "dcom/orpc/ComObject.h"
#include "opcda/Server.h"
#include "opcda/wire/Sinks.h"

namespace quelm::opcda::wire {

class OpcClassFactory final : public dcom::orpc::ClassFactory {
 public:
    // Both outlive the factory and all its objects.
    OpcClassFactory(Application& application, OutgoingCalls& outgoing)
        : application_(application), outgoing_(outgoing) {}

    Uuid classId() const override;
    std::shared_ptr<dcom::orpc::ComObject> create(const dcom::rpc::Peer& peer, const std::string& account,
                                                  HResult& result) override;
    // Counts as a client of the server.
    std::shared_ptr<void> holdServer() override;

 private:
    Application& application_;
    OutgoingCalls& outgoing_;
};

}  // namespace quelm::opcda::wire
