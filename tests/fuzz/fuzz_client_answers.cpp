// What a server answers to a program that calls it: arbitrary bytes for the decoders of activations, and whole sessions
// with a machine that answers every call with a part of the input. Whatever it says, the session comes to an end, with
// a trouble or without, and what the program holds is bounded.

#include <memory>
#include <utility>

#include "FuzzInput.h"
#include "dcom/client/Session.h"
#include "dcom/ntlm/AccountTable.h"
#include "dcom/orpc/ActivationProperties.h"
#include "dcom/orpc/RemoteActivation.h"
#include "dcom/rpc/ServerConnection.h"

namespace quelm::fuzz {
namespace {

namespace client = dcom::client;
namespace orpc = dcom::orpc;
namespace outgoing = dcom::outgoing;
namespace rpc = dcom::rpc;
using Data = std::vector<std::uint8_t>;

void requireSane(const std::optional<orpc::ActivatedObject>& object) {
    if (!object) {
        return;
    }
    require(object->interfaces.size() <= orpc::maximumInterfaces, "interfaces are bounded");
    require(object->process.bindings.size() <= orpc::mostBindings, "bindings are bounded");
    for (const auto& entry : object->interfaces) {
        require(failed(entry.result) != entry.reference.has_value(), "what is there has a reference");
    }
}

// Answers each call as the input says; with a fault once there is no more of it.
class Machine final : public rpc::CallHandler {
 public:
    explicit Machine(Input& input) : input_(input) {}
    bool supports(const Uuid&, std::uint16_t, std::uint16_t) override { return true; }
    void connectionClosed(const rpc::Peer&, bool) override {}
    dcom::Fault call(const rpc::Call&, dcom::ndr::Writer& reply) override {
        constexpr dcom::Fault faults[] = {dcom::Fault::AccessDenied, dcom::Fault::Server, dcom::Fault::VersionMismatch,
                                          dcom::Fault::UnknownInterface};
        const std::uint8_t how = input_.u8();
        if (input_.empty() || how == 1) {
            return faults[input_.u8() % std::size(faults)];
        }
        reply.bytes(input_.part());
        return dcom::Fault::None;
    }

 private:
    Input& input_;
};

// A network in which every address is that machine.
class Network final : public outgoing::IDialer {
 public:
    Network(AsioLoop& loop, Machine& machine) : loop_(loop), machine_(machine) {}
    std::unique_ptr<outgoing::ILink> dial(const outgoing::Address&, outgoing::ILinkEvents& events) override {
        auto link = std::make_unique<Link>(*this, events);
        link->later([&events] { events.connected(); });
        return link;
    }

 private:
    class Link final : public outgoing::ILink {
     public:
        Link(Network& network, outgoing::ILinkEvents& events)
            : network_(network),
              events_(events),
              server_(network.settings_, network.machine_, {1, "192.0.2.1:40000", "10.0.0.5", 135}) {}
        std::size_t send(std::span<const std::uint8_t> data) override {
            later([this, bytes = Data(data.begin(), data.end())] { serve(bytes); });
            return data.size();
        }
        void awaitRoom() override {}
        void later(std::function<void()> task) {
            network_.loop_.post([alive = std::weak_ptr<int>(alive_), task = std::move(task)] {
                if (!alive.expired()) {
                    task();
                }
            });
        }

     private:
        void serve(const Data& bytes) {
            server_.feed(bytes);
            const Data answer(server_.output().begin(), server_.output().end());
            server_.sent(answer.size());
            if (!answer.empty()) {
                events_.received(answer);
            }
        }

        Network& network_;
        outgoing::ILinkEvents& events_;
        rpc::ServerConnection server_;
        std::shared_ptr<int> alive_ = std::make_shared<int>();
    };

    AsioLoop& loop_;
    Machine& machine_;
    dcom::ntlm::AccountTable accounts_;
    rpc::ServerSettings settings_{
        .accounts = accounts_, .logOn = {}, .minimumLevel = rpc::AuthLevel::None, .onRefused = {}, .challenge = {}};
};

void useObject(const client::Interface& object, Input& input) {
    const auto results = object.call(3);
    require(results.size() <= 0xFFFF, "an answer is no longer than what came");
    const auto queried = object.query(orpc::iidUnknown);
    require(failed(queried.result) != queried.interface.has_value(), "what is there has a handle");
    if (const auto other = object.adopt(input.part())) {
        other->call(3);
    }
}

void runSession(Input& input) {
    AsioLoop loop;
    Machine machine(input);
    Network network(loop, machine);
    client::Settings settings;
    settings.dialer = &network;
    settings.lookUp = [](const std::string&) { return std::vector<std::string>{"10.0.0.5"}; };
    settings.trace = [](const std::string& line) { requireOneLine(line); };
    client::Session session(loop, "server", {}, settings);
    for (int steps = 0; steps < 8 && !input.empty(); ++steps) {
        try {
            const auto made = session.activate(orpc::iidUnknown, std::array{orpc::iidUnknown, orpc::iidRemUnknown});
            require(made.interfaces.size() == 2, "an entry for each interface");
            for (const auto& [result, interface] : made.interfaces) {
                if (interface) {
                    useObject(*interface, input);
                }
            }
        } catch (const client::Trouble& trouble) {
            requireOneLine(trouble.what());
            require(std::string_view(trouble.what()).size() > 10, "a trouble says something");
        }
    }
}

}  // namespace

void runInput(Input input) {
    switch (input.u8() & 3) {
        case 0: {
            ExactCopy copy(input.rest());
            return requireSane(orpc::parseCreateInstance(copy.bytes()));
        }
        case 1: {
            ExactCopy copy(input.rest());
            return requireSane(orpc::parseRemoteActivation(copy.bytes()));
        }
        default:
            return runSession(input);
    }
}

}  // namespace quelm::fuzz
