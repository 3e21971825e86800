#pragma once

// This program as a server calls it back: listens, and answers for the objects that were exported. They live as long as
// the program says, whoever holds them; so nothing is counted here, and nothing ends for want of pings.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "dcom/client/Core.h"
#include "dcom/net/TcpServer.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/orpc/Resolver.h"
#include "dcom/rpc/CallHandler.h"

namespace quelm::dcom::client {

class CallbackHost final : public rpc::CallHandler {
 public:
    // Listens at once, at the address that leads to the server unless the settings name one. Throws Trouble(Address).
    explicit CallbackHost(Core& core);
    CallbackHost(const CallbackHost&) = delete;
    CallbackHost& operator=(const CallbackHost&) = delete;

    // See Session.
    std::vector<std::uint8_t> add(const Uuid& iid, ICallback& callback, const Uuid& marshalledAs);
    void remove(const ICallback& callback);
    std::string address() const { return address_ + ':' + std::to_string(port_); }
    bool wasCalled() const { return wasCalled_; }

    bool supports(const Uuid& interfaceId, std::uint16_t versionMajor, std::uint16_t versionMinor) override;
    bool isOpenToAll(const Uuid& interfaceId) override { return interfaceId == orpc::iidObjectExporter; }
    Fault call(const rpc::Call& call, ndr::Writer& reply) override;
    // A server may be quiet for long.
    bool holdsAnything(const rpc::Peer&) const override { return true; }
    void connectionClosed(const rpc::Peer&, bool) override {}

 private:
    struct Object {
        std::uint64_t oid = 0;
        Uuid unknown;  // IPIDs: of IUnknown, and of the one interface
        Uuid ipid;
        Uuid iid;
        ICallback* callback = nullptr;
    };

    rpc::ServerSettings serverSettings();
    void traceRefusal(const rpc::Refusal& refusal) const;
    orpc::ExporterSettings exporterSettings() const;
    void listen();
    Fault dispatch(const rpc::Call& call, ndr::Writer& reply);
    Fault callRemUnknown(std::uint16_t opnum, ndr::Reader& in, ndr::Writer& reply);
    Fault queryInterface(ndr::Reader& in, ndr::Writer& reply);
    const Object* find(const Uuid& ipid) const;

    Core& core_;
    ntlm::AccountTable accounts_;
    rpc::ServerSettings protocol_;
    net::TcpServer server_;
    std::string address_;                           // that the server is told
    std::uint16_t port_ = 0;                        // of the objects
    std::optional<orpc::ObjectExporter> exporter_;  // for who asks for the process, and for pings
    std::optional<orpc::Resolver> resolver_;
    std::vector<Object> objects_;  // a handful
    bool wasCalled_ = false;
};

}  // namespace quelm::dcom::client
