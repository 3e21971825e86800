#pragma once

// The list of the OPC servers of this machine, which is a class of its own at the same address as the server. Who has
// it is no client of the server and does not keep it from ending.

#include <memory>

#include "dcom/orpc/ComObject.h"
#include "opcda/Server.h"
#include "opcda/wire/OfferedInterfaces.h"
#include "opcda/wire/ServerListInterface.h"

namespace quelm::opcda::wire {

class ServerListObject final : public dcom::orpc::ComObject {
 public:
    using Interfaces = OfferedInterfaces<ServerListInterface<false>, ServerListInterface<true>>;
    // Bytes: itself and the books about it.
    static constexpr std::size_t footprint = 1024;

    // memory: so much of the client's budget as the object takes.
    explicit ServerListObject(Hold memory) : memory_(std::move(memory)), interfaces_(*this) {}

    dcom::orpc::Interface* queryInterface(const Uuid& iid) override { return interfaces_.find(iid); }
    bool isOpenToAll() const override { return true; }
    void disconnected() override {}

    // A part of the client's budget, still empty.
    Hold memory() const { return memory_.another(); }

 private:
    Hold memory_;
    Interfaces interfaces_;
};

// All that there is to the list.
inline constexpr std::array serverListRows{
    ServerListObject::Interfaces::rows[0],
    ServerListObject::Interfaces::rows[1],
    InterfaceRow{iidEnumGuid, "IEnumGUID", methodNames<EnumeratorObject>},
    InterfaceRow{iidOpcEnumGuid, "IOPCEnumGUID", methodNames<EnumeratorObject>},
};

class ServerListFactory final : public dcom::orpc::ClassFactory {
 public:
    // The application outlives the factory.
    explicit ServerListFactory(Application& application) : application_(application) {}

    Uuid classId() const override { return "13486D51-4821-11D2-A494-3CB306C10000"_uuid; }
    bool isOpenToAll() const override { return true; }
    std::shared_ptr<dcom::orpc::ComObject> create(const dcom::rpc::Peer& peer, const std::string& account,
                                                  HResult& result) override;
    // Whoever locks the list in memory must not lock the server.
    std::shared_ptr<void> holdServer() override { return std::make_shared<char>(); }

 private:
    Application& application_;
};

}  // namespace quelm::opcda::wire
