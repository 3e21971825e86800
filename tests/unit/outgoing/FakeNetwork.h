#pragma once

// A network of machines on a virtual clock: addresses where somebody serves, hangs, refuses or talks nonsense, and a
// client's machine that writes down what it is called with. Its RPC is this project's own server half.

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Parameters.h"
#include "base/TimeSource.h"
#include "dcom/ndr/Reader.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/ntlm/Crypto.h"
#include "dcom/orpc/OrpcTypes.h"
#include "dcom/outgoing/Dialer.h"
#include "dcom/rpc/ServerConnection.h"
#include "loop/VirtualLoop.h"

namespace quelm::dcom::outgoing::test {

using quelm::test::Bytes;
using quelm::test::Parameters;
using quelm::test::toHex;
using Events = std::vector<std::string>;

inline constexpr Uuid iidCallback = Uuid::parse("39C13A70-011E-11D0-9675-0020AFD8ADB3");

// A client's machine: its resolver and the program that has the sinks.
class Machine final : public rpc::CallHandler {
 public:
    explicit Machine(Events& events) : events_(events) {}

    // What it answers.
    struct Answers {
        std::vector<std::string> bindings{"10.0.0.5[5001]"};
        std::uint32_t levelHint = 2;
        std::uint32_t resolveStatus = 0;
        HResult queryResult = S_OK;
        std::uint64_t pingSet = 0;
        // Instead of the usual answer to a call whose event begins with a key.
        std::map<std::string, Fault> faults = {};
        std::optional<Bytes> raw = {};  // instead of the usual results
    };
    Answers answers;

    bool supports(const Uuid& interfaceId, std::uint16_t, std::uint16_t) override {
        return interfaceId == orpc::iidObjectExporter || interfaceId == orpc::iidRemUnknown ||
               interfaceId == iidCallback;
    }
    bool isOpenToAll(const Uuid& interfaceId) override { return interfaceId == orpc::iidObjectExporter; }
    void connectionClosed(const rpc::Peer&, bool) override {}

    Fault call(const rpc::Call& call, ndr::Writer& reply) override {
        Parameters out;
        const std::string event = call.interfaceId == orpc::iidObjectExporter ? resolver(call, out)
                                  : call.interfaceId == orpc::iidRemUnknown   ? remUnknown(call, out)
                                                                              : callback(call, out);
        events_.push_back(fmt::format("{} @{}", event, levelName(call.level)));
        reply.bytes(answers.raw ? std::span<const std::uint8_t>(*answers.raw) : out);
        for (const auto& [beginning, fault] : answers.faults) {
            if (event.starts_with(beginning)) {
                hanging_.push_back(fault == Fault::Deferred ? call.defer() : rpc::CallTicket());
                return fault;
            }
        }
        return Fault::None;
    }

 private:
    static std::string shortOf(const Uuid& uuid) { return uuid.toText().substr(0, 8); }

    std::string resolver(const rpc::Call& call, Parameters& out) {
        ndr::Reader in(call.stub);
        const std::uint64_t first = in.u64();
        switch (static_cast<orpc::ObjectExporterCall>(call.opnum)) {
            case orpc::ObjectExporterCall::ResolveOxid2: {
                Parameters units;
                for (const std::string& binding : answers.bindings) {
                    units.u16(orpc::towerTcp);
                    for (const char c : binding) {
                        units.u16(static_cast<std::uint8_t>(c));
                    }
                    units.u16(0);
                }
                units.u16(0);
                const std::size_t count = units.bytes().size() / 2;
                out.u32(1).u32(count).u16(static_cast<std::uint16_t>(count)).u16(static_cast<std::uint16_t>(count));
                out.add(units).uuid(Uuid::parse("00000001-0000-0000-0000-0000000000AA")).u32(answers.levelHint);
                out.u16(5).u16(7).u32(answers.resolveStatus);
                return fmt::format("resolve {:x}", first);
            }
            case orpc::ObjectExporterCall::SimplePing:
                out.u32(first == answers.pingSet ? 0 : 1912);
                return fmt::format("ping {}", first);
            default:
                return complexPing(first, in, out);
        }
    }

    std::string complexPing(std::uint64_t set, ndr::Reader& in, Parameters& out) {
        const std::uint16_t sequence = in.u16();
        in.u32();
        std::string event = fmt::format("ping {} #{}", set, sequence);
        for (const char sign : {'+', '-'}) {
            for (std::uint32_t n = in.pointer() ? in.count(8) : 0; n > 0; --n) {
                event += fmt::format(" {}{:x}", sign, in.u64());
            }
        }
        answers.pingSet = 77;
        out.u64(answers.pingSet).u16(0).u32(0);
        return event;
    }

    std::string remUnknown(const rpc::Call& call, Parameters& out) {
        ndr::Reader in(call.stub);
        in.bytes(32);
        if (call.opnum == orpc::opnumOf(orpc::RemUnknownCall::QueryInterface)) {
            const Uuid ipid = in.uuid();
            const std::uint32_t count = in.u32();
            in.bytes(8);
            Uuid given = ipid;
            given.bytes[0] |= 0x80;  // as little endian text: the last digits of the first group
            out.u32(0).u32(0).u32(1).u32(1).align(8).hresult(answers.queryResult).align(8);
            out.u32(0).u32(count).u64(9).u64(9).uuid(given).hresult(S_OK);
            return fmt::format("query {} {}", shortOf(ipid), shortOf(in.uuid()));
        }
        std::string event = "release";
        in.u16();
        for (std::uint32_t n = in.u32(); n > 0 && in.good(); --n) {
            event += ' ' + shortOf(in.uuid());
            event += fmt::format("*{}", in.u32());
            in.u32();
        }
        out.u32(0).u32(0).hresult(S_OK);
        return event;
    }

    static std::string callback(const rpc::Call& call, Parameters& out) {
        out.u32(0).u32(0).hresult(S_OK);
        const auto parameters = call.stub.subspan(32);
        return fmt::format("call {} {} {}", shortOf(call.object), call.opnum,
                           parameters.size() > 16 ? fmt::format("{} bytes", parameters.size()) : toHex(parameters));
    }

    Events& events_;
    std::vector<rpc::CallTicket> hanging_;  // calls that are never answered
};

// How an address behaves towards who connects.
enum class End : std::uint8_t { Serves, Refuses, BlackHole, Mute, Closes, Babbles };

class Network final : public IDialer {
 public:
    Network(VirtualLoop& loop, Events& events) : machine(events), loop_(loop), events_(events) {
        accounts_.add("*", "server", ntlm::ntHash("secret"));
        settings.logOn.computerName = "CLIENT1";
    }

    std::map<std::string, End> ends;  // by "address:port"; others refuse
    Machine machine;
    rpc::ServerSettings settings{
        .accounts = accounts_, .logOn = {}, .minimumLevel = rpc::AuthLevel::None, .onRefused = {}, .challenge = {}};
    std::size_t window = 1 << 20;  // that a connection takes in one turn
    std::size_t largestSend = 0;
    std::function<void(Bytes&)> alter = [](Bytes&) {};  // what is on its way back
    std::size_t open() const { return links_.size(); }

    // Ends all connections.
    void cut(std::string_view reason) {
        while (!links_.empty()) {
            (*links_.begin())->end(reason);
        }
    }

    std::unique_ptr<ILink> dial(const Address& address, ILinkEvents& events) override {
        events_.push_back("dial " + address.text());
        const auto end = ends.find(address.text());
        auto link = std::make_unique<Link>(*this, events, end == ends.end() ? End::Refuses : end->second);
        link->later(&Link::begin);
        return link;
    }

 private:
    class Link final : public ILink {
     public:
        Link(Network& network, ILinkEvents& events, End end) : network_(network), events_(events), end_(end) {
            network_.links_.insert(this);
        }
        ~Link() override { network_.links_.erase(this); }

        std::size_t send(std::span<const std::uint8_t> data) override {
            const std::size_t count = std::min(data.size(), room_);
            room_ -= count;
            network_.largestSend = std::max(network_.largestSend, data.size());
            if (end_ == End::Serves) {
                unread_.insert(unread_.end(), data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count));
                later(&Link::serve);
            }
            return count;
        }
        void awaitRoom() override { later(&Link::makeRoom); }

        void later(void (Link::*step)()) {
            network_.loop_.post([link = this, alive = std::weak_ptr(alive_), step] {
                if (!alive.expired()) {
                    (link->*step)();
                }
            });
        }
        void begin() {
            if (end_ == End::Refuses) {
                return end("Connection refused");
            }
            if (end_ == End::BlackHole) {
                return;
            }
            if (end_ == End::Closes) {
                later(&Link::close);
            } else if (end_ == End::Babbles) {
                later(&Link::babble);
            }
            events_.connected();
        }
        void end(std::string_view reason) {
            network_.links_.erase(this);
            events_.ended(reason);
        }

     private:
        void close() { end({}); }
        void babble() { events_.received(Bytes(5000, 'x')); }
        void makeRoom() {
            room_ = network_.window;
            events_.writable();
        }
        void serve() {
            const std::size_t taken = server_.feed(unread_);
            unread_.erase(unread_.begin(), unread_.begin() + static_cast<std::ptrdiff_t>(taken));
            if (server_.waiting()) {
                server_.process();
            }
            Bytes answer(server_.output().begin(), server_.output().end());
            server_.sent(answer.size());
            if (!unread_.empty() && (taken != 0 || !answer.empty())) {
                later(&Link::serve);
            }
            if (!answer.empty()) {
                network_.alter(answer);
                events_.received(answer);
            }
        }

        Network& network_;
        ILinkEvents& events_;
        End end_;
        std::size_t room_ = network_.window;
        Bytes unread_;
        rpc::ServerConnection server_{network_.settings, network_.machine, {1, "192.0.2.1:40000", "10.0.0.5", 135}};
        std::shared_ptr<int> alive_ = std::make_shared<int>();
    };

    VirtualLoop& loop_;
    Events& events_;
    ntlm::AccountTable accounts_;
    std::set<Link*> links_;
};

}  // namespace quelm::dcom::outgoing::test
