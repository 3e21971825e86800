// Activation, the resolver, references and object calls, as sequences of calls by two clients on one exporter. When
// all is over, no object is left behind.

#include <memory>

#include "Bytes.h"
#include "FuzzInput.h"
#include "dcom/orpc/ActivationHandler.h"
#include "dcom/orpc/ObjectExporter.h"
#include "dcom/orpc/OrpcHandler.h"

namespace quelm::fuzz {
namespace {

namespace orpc = dcom::orpc;
namespace rpc = dcom::rpc;

constexpr Uuid classId = Uuid::parse("43FB6634-CC72-4EE9-A292-BEDF9FF018BD");
constexpr Uuid iidDummy = Uuid::parse("39C13A4D-011E-11D0-9675-0020AFD8ADB3");

// Hands out further objects like itself, breaks down, or echoes.
class Dummy final : public orpc::ComObject, public orpc::Interface {
 public:
    Dummy() { ++alive; }
    ~Dummy() override { --alive; }

    orpc::Interface* queryInterface(const Uuid& iid) override { return iid == iidDummy ? this : nullptr; }
    void disconnected() override {
        require(!told_, "an object is told only once that it is let go");
        told_ = true;
    }
    dcom::Fault invoke(std::uint16_t opnum, dcom::ndr::Reader& in, dcom::ndr::Writer& out,
                       orpc::CallContext& context) override {
        require(!told_, "an object that was let go is not called");
        switch (opnum) {
            case 3:
                out.hresult(context.writeInterface(out, std::make_shared<Dummy>(), in.uuid()));
                return dcom::Fault::None;
            case 4:
                out.hresult(context.writeInterface(out, shared_from_this(), in.uuid()));
                return dcom::Fault::None;
            case 5:
                throw std::runtime_error("breaks down");
            case 6:
                out.bytes(in.bytes(in.remaining()));
                return dcom::Fault::None;
            default:
                return dcom::Fault::OpnumRange;
        }
    }

    static inline int alive = 0;

 private:
    bool told_ = false;
};

class DummyFactory final : public orpc::ClassFactory {
 public:
    Uuid classId() const override { return quelm::fuzz::classId; }
    std::shared_ptr<orpc::ComObject> create(const rpc::Peer&, const std::string&, HResult&) override {
        return std::make_shared<Dummy>();
    }
    std::shared_ptr<void> holdServer() override { return std::make_shared<Dummy>(); }
};

// Known interfaces and their opnums make most of the calls; the last one is unknown.
constexpr Uuid interfaces[] = {orpc::iidActivation,
                               orpc::iidRemoteScmActivator,
                               orpc::iidObjectExporter,
                               orpc::iidRemUnknown,
                               orpc::iidRemUnknown2,
                               iidDummy,
                               orpc::iidClassFactory,
                               orpc::iidUnknown,
                               classId};

class Plant {
 public:
    Plant() { classes_.add(std::make_shared<DummyFactory>()); }
    ~Plant() {
        exporter_.revokeAll();
        require(exporter_.objectCount() == 0 && exporter_.clientCount() == 0, "nothing is left after the end");
    }

    void step(Input& input) {
        const std::uint8_t what = input.u8();
        const std::uint8_t choice = input.u8();
        const std::uint8_t opnum = input.u8();
        const std::size_t client = what & 1;
        switch (what >> 1 & 3) {
            case 0:
                call(activation_, client, choice, opnum, {}, input.part());
                break;
            case 1:
            case 2:
                call(objects_, client, choice, opnum, objectOf(opnum), withHeader(choice, input));
                break;
            default:
                pass(client, choice);
                break;
        }
        exporter_.settle();
    }

 private:
    using Data = test::Bytes;

    // The identifiers count up, so that an input can name them.
    Uuid objectOf(std::uint8_t opnum) const {
        const std::uint8_t number = opnum >> 4;
        if (number == 0) {
            return exporter_.remUnknownIpid();
        }
        return number <= ipids_.size() ? ipids_[ipids_.size() - number] : Uuid{};
    }

    // Most calls begin with a right header, and the one IPID that a parameter begins with is one that exists.
    Data withHeader(std::uint8_t choice, Input& input) {
        test::Builder stub;
        if ((choice & 128) == 0) {
            stub.u16(orpc::comMajorVersion).u16(orpc::comMinorVersion).add(Data(28));
        }
        if ((choice & 64) != 0) {
            stub.add(objectOf(static_cast<std::uint8_t>(1 + (input.u8() & 3)) << 4 & 0xFF).bytes);
        }
        return stub.add(input.part()).data();
    }

    void call(rpc::CallHandler& handler, std::size_t client, std::uint8_t choice, std::uint8_t opnum,
              const Uuid& object, Bytes stub) {
        const Uuid& interfaceId = interfaces[(choice & 63) % std::size(interfaces)];
        ExactCopy exact(stub);
        reply_.clear();
        dcom::ndr::Writer reply(reply_);
        handler.call({peers_[client], interfaceId, static_cast<std::uint16_t>(opnum & 15), !object.isNull(), object,
                      exact.bytes(), rpc::AuthLevel::Integrity, accounts_[client]},
                     reply);
        require(reply_.size() < 64 * stub.size() + 100'000, "a reply is of a sane length");
        collectIpids();
    }

    // A marshalled reference: "MEOW", flags, interface, 24 bytes, IPID.
    void collectIpids() {
        constexpr std::uint8_t signature[] = {'M', 'E', 'O', 'W'};
        for (auto at = reply_.begin();;) {
            at = std::search(at, reply_.end(), std::begin(signature), std::end(signature));
            if (reply_.end() - at < 64) {
                break;
            }
            Uuid ipid;
            std::copy_n(at + 48, 16, ipid.bytes.begin());
            ipids_.push_back(ipid);
            at += 64;
        }
    }

    void pass(std::size_t client, std::uint8_t choice) {
        if ((choice & 3) == 0) {
            activation_.connectionClosed(peers_[client], (choice & 4) != 0);
        } else if ((choice & 3) == 1) {
            objects_.connectionClosed(peers_[client], (choice & 4) != 0);
        } else {
            now_ += 1000U * choice;
            exporter_.tick();
        }
    }

    std::uint64_t now_ = 1'000'000;
    std::uint64_t random_ = 0;
    orpc::ClassRegistry classes_;
    orpc::ObjectExporter exporter_{
        orpc::ExporterSettings{.objectPort = 49200, .hostNames = {"quelm01"}, .log = [](const std::string&) {}},
        [this] { return now_; }, [this] { return ++random_; }};
    orpc::ActivationHandler activation_{exporter_, classes_};
    orpc::OrpcHandler objects_{exporter_, [](const Uuid& iid) { return iid == iidDummy; }};
    rpc::Peer peers_[2] = {{1, "192.0.2.7:51234", "192.0.2.1", 135}, {2, "192.0.2.8:51235", "192.0.2.1", 135}};
    std::string accounts_[2] = {"PLANT\\opc", "PLANT\\display"};
    Data reply_;
    std::vector<Uuid> ipids_;
};

}  // namespace

void runInput(Input input) {
    {
        Plant plant;
        for (int steps = 0; steps < 100 && !input.empty(); ++steps) {
            plant.step(input);
        }
    }
    require(Dummy::alive == 0, "no object outlives the exporter");
}

}  // namespace quelm::fuzz
