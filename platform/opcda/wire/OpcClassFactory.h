#pragma once

// Makes a server object for each client that asks for the server's class.

#include "dcom/orpc/ComObject.h"
#include "opcda/Server.h"

namespace quelm::opcda::wire {

class OpcClassFactory final : public dcom::orpc::ClassFactory {
 public:
    // The application outlives the factory and all its objects.
    explicit OpcClassFactory(Application& application) : application_(application) {}

    Uuid classId() const override;
    std::shared_ptr<dcom::orpc::ComObject> create(const dcom::rpc::Peer& peer, const std::string& account,
                                                  HResult& result) override;
    // Counts as a client of the server.
    std::shared_ptr<void> holdServer() override;

 private:
    Application& application_;
};

}  // namespace quelm::opcda::wire
