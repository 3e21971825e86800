// What the machines answer that this server connects to when it calls clients back: arbitrary bytes for each decoder
// and for a connection, and whole conversations with machines whose answers are altered on their way. Whatever they
// say, nothing is told twice or to what is gone, and nothing is left behind.

#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "FuzzInput.h"
#include "dcom/ntlm/ClientContext.h"
#include "dcom/outgoing/Candidates.h"
#include "dcom/outgoing/RemoteProcesses.h"
#include "dcom/rpc/ClientConnection.h"
#include "dcom/rpc/Spnego.h"
#include "outgoing/FakeNetwork.h"

namespace quelm::fuzz {
namespace {

namespace ntlm = dcom::ntlm;
namespace orpc = dcom::orpc;
namespace outgoing = dcom::outgoing;
namespace rpc = dcom::rpc;
using Data = std::vector<std::uint8_t>;

const ntlm::ClientAccount account{"PLANT", "server", ntlm::ntHash("secret"), "QUELM1"};

void requireSane(const std::vector<orpc::StringBinding>& bindings) {
    require(bindings.size() <= orpc::mostBindings, "bindings are bounded");
    for (const orpc::StringBinding& binding : bindings) {
        require(!binding.address.empty() && binding.address.size() <= orpc::longestAddress, "an address is one");
        requireOneLine(binding.address);
    }
    const auto addresses = outgoing::candidates(bindings, "10.0.0.5");
    require(addresses.size() <= outgoing::mostCandidates, "tries are bounded");
    for (const outgoing::Address& address : addresses) {
        require(address.port != 0 && !address.host.starts_with("127."), "only what can be a client's machine is tried");
    }
}

void decodeAlone(Input& input) {
    ExactCopy copy(input.rest());
    const Bytes bytes = copy.bytes();
    if (const auto reference = orpc::parseRemoteReference(bytes)) {
        requireSane(reference->resolver);
    }
    if (const auto resolved = orpc::parseResolveOxid2(bytes)) {
        requireSane(resolved->bindings);
    }
    orpc::parseRemQueryInterface(bytes);
    orpc::parseSimplePing(bytes);
    orpc::parseComplexPing(bytes);
    rpc::spnego::parse(bytes);
    ntlm::ClientContext context(account, true);
    context.negotiate();
    if (const auto answer = context.authenticate(bytes)) {
        require(answer->size() < bytes.size() + 1000, "an answer is of a sane length");
    }
}

// Parts of the input as they may come in; between them calls as soon as there can be one.
void answerOneConnection(std::uint8_t mode, Input& input) {
    const bool logsOn = (mode & 4) != 0;
    const rpc::LogOnSettings logOn{logsOn ? &account : nullptr, logsOn ? rpc::AuthLevel::Privacy : rpc::AuthLevel::None,
                                   (mode & 8) != 0};
    constexpr std::size_t largestAnswer = 1000;
    rpc::ClientConnection connection(logOn, orpc::iidRemUnknown, largestAnswer);
    std::uint16_t number = 0;
    bool underWay = false;
    while (!input.empty()) {
        connection.sent(connection.output().size());
        ExactCopy part(input.part());
        connection.received(part.bytes());
        require(connection.output().size() < 80'000, "what is sent is bounded");
        if (connection.idle() && !underWay) {
            underWay = true;
            const Uuid& iid = ++number % 3 == 0 ? orpc::iidObjectExporter : orpc::iidRemUnknown;
            connection.call(
                {iid, number, Uuid{}}, [](dcom::ndr::Writer& out) { out.u32(1); },
                [&underWay, logsOn](const rpc::CallResult& result) {
                    require(std::exchange(underWay, false), "a call is answered once");
                    require(result.stub.size() <= largestAnswer, "an answer is bounded");
                    require(!logsOn || result.fault != dcom::Fault::None, "nobody signs without the secret");
                },
                std::make_shared<Data>(number * 5000U));
        }
    }
}

// Sinks of one client, on a machine that answers as the input says.
class Plant {
 public:
    explicit Plant(std::uint8_t mode) {
        settings_.allowNoLogOn = (mode & 4) == 0;
        if ((mode & 8) == 0) {
            settings_.account = account;
        }
        network_.ends = {{"10.0.0.5:135", outgoing::test::End::Serves}, {"10.0.0.5:5001", outgoing::test::End::Serves}};
        network_.alter = [this](Data& answer) { alter(answer); };
    }
    ~Plant() {
        for (auto& sink : sinks_) {
            sink.reset();
        }
        pass(100);
        require(processes_.processCount() == 0 && network_.open() == 0, "nothing is left after the end");
    }

    void step(Input& input) {
        const std::uint8_t what = input.u8();
        const std::uint8_t choice = input.u8();
        auto& sink = sinks_[choice & 7];
        switch (what & 7) {
            case 0:
                return sink == nullptr ? connect(sink, choice) : void();
            case 1:
                return sink != nullptr && sink->object != nullptr ? sink->call(choice * (what & 8) * 100U) : void();
            case 2:
                return sink.reset();
            case 3:
                return pass(choice);
            case 4:
                return network_.cut(choice == 0 ? "" : "Connection reset by peer");
            case 5:
                alterations_.push_back({input.u16(), choice});
                return;
            case 6:
                network_.machine.answers.raw = Data();
                assign(*network_.machine.answers.raw, input.part());
                return choice == 0 ? network_.machine.answers.raw.reset() : void();
            default:
                network_.ends[(what & 8) != 0 ? "10.0.0.5:135" : "10.0.0.5:5001"] = outgoing::test::End(choice % 6);
        }
    }

 private:
    struct Sink {
        std::unique_ptr<orpc::IRemoteObject> object;
        bool givenUp = false;

        void call(std::size_t size) {
            object->call(3, std::make_shared<Data>(size), [answered = std::make_shared<bool>(false), this] {
                require(!std::exchange(*answered, true), "a call is answered once");
                require(!givenUp, "nothing is answered once the sink is given up");
            });
        }
    };

    static void assign(Data& to, Bytes from) { to.assign(from.begin(), from.end()); }

    void connect(std::unique_ptr<Sink>& sink, std::uint8_t choice) {
        sink = std::make_unique<Sink>();
        orpc::RemoteObjectRequest request;
        request.reference.object = {5, choice & 3U, choice & 7U, {}};
        request.iid = outgoing::test::iidCallback;
        request.host = "10.0.0.5";
        request.givenUp = [its = sink.get()] {
            require(!std::exchange(its->givenUp, true), "a sink is given up once");
            its->object.reset();
        };
        sink->object = processes_.connect(std::move(request));
    }

    void alter(Data& answer) {
        for (const auto& [at, change] : std::exchange(alterations_, {})) {
            answer[at % answer.size()] ^= change;
        }
    }

    void pass(unsigned seconds) {
        loop_.advance(0);
        for (unsigned passed = 0; passed < seconds; passed += 5) {
            time_.advanceMilliseconds(5000);
            loop_.advance(5000);
        }
    }

    struct Alteration {
        std::uint16_t at = 0;
        std::uint8_t change = 0;
    };

    ManualTimeSource time_{Date{46348.5}};
    ScopedTimeSource inForce_{time_};
    VirtualLoop loop_;
    outgoing::test::Events events_;
    outgoing::test::Network network_{loop_, events_};
    std::vector<Alteration> alterations_;  // of the next answer
    outgoing::CallSettings settings_;
    outgoing::RemoteProcesses processes_{
        {network_, loop_, settings_,
         [](const std::string&, const std::string&, const std::string& line) { requireOneLine(line); }}};
    std::array<std::unique_ptr<Sink>, 8> sinks_;
};

}  // namespace

void runInput(Input input) {
    const std::uint8_t mode = input.u8();
    if ((mode & 3) == 0) {
        decodeAlone(input);
    } else if ((mode & 3) == 1) {
        answerOneConnection(mode, input);
    } else {
        Plant plant(mode);
        for (int steps = 0; steps < 100 && !input.empty(); ++steps) {
            plant.step(input);
        }
    }
}

}  // namespace quelm::fuzz
