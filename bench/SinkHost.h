#pragma once

// The machine of clients that are called back: resolver, and as many programs with sinks as wanted, on a thread of its
// own. Counts what comes, as this project's own server half takes it.

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "WireClient.h"
#include "dcom/net/TcpServer.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/orpc/OrpcTypes.h"
#include "opcda/wire/Sinks.h"

namespace quelm::bench {

namespace orpc = dcom::orpc;

class SinkHost final : public rpc::CallHandler {
 public:
    // level: what callbacks are asked to have.
    SinkHost(unsigned level, std::string_view secret) : level_(level) {
        accounts_.add("*", "server", dcom::ntlm::ntHash(secret));
        settings_.logOn.computerName = "SINKS";
        port_ = server_.listen("127.0.0.1", 0, *this);
        thread_ = std::thread([this] {
            // A client's machine is another one, and must not keep the server or a reading client from running.
            ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 10);
            loop_.run();
        });
    }
    ~SinkHost() override {
        loop_.stop();
        thread_.join();
    }
    SinkHost(const SinkHost&) = delete;
    SinkHost& operator=(const SinkHost&) = delete;

    // The marshalled reference of a sink of one of the programs here.
    Bytes sink(std::uint32_t number, std::uint32_t which = 0) const {
        const std::uint64_t program = std::uint64_t{port_} << 16U | which;
        Bytes reference;
        dcom::ndr::Writer out(reference);
        out.u32(orpc::objectSignature);
        out.u32(orpc::standardReference);
        out.uuid(orpc::iidUnknown);
        Uuid ipid;
        std::memcpy(ipid.bytes.data(), &number, sizeof number);
        orpc::writeObjectReference(out, {5, program, program << 24U | number, ipid});
        orpc::Bindings("127.0.0.1", {}, port_).write(out);
        return reference;
    }

    // Since the last forget(): data changes, their items, and when the latest one came.
    std::uint64_t callbacks() const { return callbacks_; }
    std::uint64_t items() const { return items_; }
    std::chrono::steady_clock::time_point latest() const {
        return std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(latest_));
    }
    void forget() { callbacks_ = items_ = 0; }
    bool awaitItems(std::uint64_t count, std::chrono::seconds limit = std::chrono::seconds(60)) const {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (items_ < count && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        return items_ >= count;
    }

    bool supports(const Uuid& interfaceId, std::uint16_t, std::uint16_t) override {
        return interfaceId == orpc::iidObjectExporter || interfaceId == orpc::iidRemUnknown ||
               interfaceId == opcda::wire::iidOpcDataCallback;
    }
    bool isOpenToAll(const Uuid& interfaceId) override { return interfaceId == orpc::iidObjectExporter; }
    void connectionClosed(const rpc::Peer&, bool) override {}
    bool holdsAnything(const rpc::Peer&) const override { return true; }

    dcom::Fault call(const rpc::Call& call, dcom::ndr::Writer& reply) override {
        if (call.interfaceId == orpc::iidObjectExporter) {
            resolver(call, reply);
            return dcom::Fault::None;
        }
        reply.u64(0);  // the header of all results
        dcom::ndr::Reader in(call.stub);
        in.bytes(32);
        if (call.interfaceId == orpc::iidRemUnknown) {
            remUnknown(call, in, reply);
        } else {
            in.bytes(16);  // transaction, group, quality, error
            items_ += in.u32();
            ++callbacks_;
            latest_ = std::chrono::steady_clock::now().time_since_epoch().count();
        }
        reply.u32(0);
        return dcom::Fault::None;
    }

 private:
    void resolver(const rpc::Call& call, dcom::ndr::Writer& reply) const {
        using Method = orpc::ObjectExporterCall;
        if (call.opnum == orpc::opnumOf(Method::ResolveOxid2)) {
            orpc::Bindings("127.0.0.1", {}, port_).writePointed(reply);
            reply.uuid({});
            reply.u32(level_);
            orpc::writeComVersion(reply);
        } else if (call.opnum == orpc::opnumOf(Method::ComplexPing)) {
            reply.u64(1);
            reply.u16(0);
        }
        reply.u32(0);
    }

    static void remUnknown(const rpc::Call& call, dcom::ndr::Reader& in, dcom::ndr::Writer& reply) {
        if (call.opnum == orpc::opnumOf(orpc::RemUnknownCall::QueryInterface)) {
            reply.pointer();
            reply.u32(1);
            reply.align(8);
            reply.u32(0);
            reply.align(8);
            orpc::writeObjectReference(reply, {5, 0, 0, in.uuid()});
        }
    }

    unsigned level_;
    dcom::ntlm::AccountTable accounts_;
    rpc::ServerSettings settings_{
        .accounts = accounts_, .logOn = {}, .minimumLevel = rpc::AuthLevel::Connect, .onRefused = {}, .challenge = {}};
    AsioLoop loop_;
    dcom::net::TcpServer server_{
        loop_, loop_, settings_, {.maxConnections = 1000, .maxOfHost = 1000, .maxOfAccount = 1000, .onTrouble = {}}};
    std::uint16_t port_ = 0;
    std::atomic<std::uint64_t> callbacks_ = 0;
    std::atomic<std::uint64_t> items_ = 0;
    std::atomic<std::chrono::steady_clock::rep> latest_ = 0;
    std::thread thread_;
};

}  // namespace quelm::bench
