// The requests of OPC clients, as sequences of calls on every interface of one server object and all that it hands
// out, with what its client's own objects do in between. Whatever the requests hold, a known method answers in full,
// and nothing is left when the client is gone.

#include "FuzzInput.h"
#include "loop/VirtualLoop.h"
#include "opcda/wire/InterfaceTable.h"
#include "opcda/wire/OpcClassFactory.h"
#include "opcda/wire/OpcGroupObject.h"
#include "opcda/wire/OpcServerObject.h"
#include "slikda/SLIKServer.h"
#include "wire/FakeContext.h"
#include "wire/FakeRemoteObjects.h"

namespace quelm::fuzz {
namespace {

namespace orpc = dcom::orpc;
namespace wire = opcda::wire;
using Object = std::shared_ptr<orpc::ComObject>;

// A host that fills most of what it is asked for, and at times reports a failure.
class Host final : public ISLIKServerEvents {
 public:
    void SLIKServer1_OnClientDisconnect(std::int32_t remaining) override {
        require(remaining == 0, "there is one client only");
    }
    void SLIKServer1_OnRead(std::int32_t count, const std::vector<ISLIKRequestedItem*>& items,
                            std::int32_t& error) override {
        require(count > 0 && items.size() == static_cast<std::size_t>(count), "a read has items");
        for (std::size_t i = 0; i < items.size() && !items[i]->Name().ends_with("Date"); ++i) {
            items[i]->SetVQT(Variant("12.5"), 0xC0, localNow());
        }
        error = count % 7 == 6 ? asNumber(E_FAIL) : 0;
    }
    void SLIKServer1_OnWrite(std::int32_t, std::int32_t& error) override { error = asNumber(E_FAIL); }
};

// Keeps what the client was given, as the exporter does: each object once, until the client lets go of it.
class Client final : public wire::test::FakeContext {
 public:
    HResult writeInterface(dcom::ndr::Writer& out, const Object& object, const Uuid& iid) override {
        const HResult result = FakeContext::writeInterface(out, object, iid);
        for (const Object& one : std::exchange(written, {})) {
            hold(one);
        }
        return result;
    }

    void hold(const Object& object) {
        if (std::find(held_.begin(), held_.end(), object) == held_.end()) {
            held_.push_back(object);
        }
    }
    // 0 is the last one handed out.
    Object object(std::size_t number) const {
        return held_.empty() ? nullptr : held_[held_.size() - 1 - number % held_.size()];
    }
    void release(const Object& object) {
        std::erase(held_, object);
        object->disconnected();
    }
    bool holdsAny() const { return !held_.empty(); }

 private:
    std::vector<Object> held_;
};

class Plant {
 public:
    Plant() {
        control_.SetEvents(&host_);
        PlantItems& items = control_.SLIKTags();
        const Date now = localNow();
        items.Add("A.Temp", 1, 12.5F, static_cast<std::int16_t>(0x80C0U), now);
        items.Add("A.B.Count", 3, std::int32_t{7}, 0xC0, now);
        items.Add("Name", 1, "Ab \xC3\xBC", 0x40, now);
        items.Add("A.Flow", 2, 0.25, 0x18, Date{});
        items.Add("Switch", 1, true, 0xC0, now);
        items.Add("Date", 1, now, 0xC0, now);
        items.Add("Empty", 1, Variant(), 0, now);
        HResult result = S_OK;
        client_.hold(wire::ServerListFactory(application_).create(client_.peer(), client_.account(), result));
        require(!control_.InUse(), "who asks for the list of servers holds none");
        client_.hold(wire::OpcClassFactory(application_, outgoing_).create(client_.peer(), client_.account(), result));
        require(!failed(result) && control_.InUse(), "a client's object keeps the server in use");
    }
    ~Plant() {
        while (client_.holdsAny()) {
            client_.release(client_.object(0));
        }
        loop_.drain();
        require(!control_.InUse(), "nothing is in use when the client is gone");
        for (const auto& object : remotes_.objects) {
            require(object->released, "no client's object is held when the client is gone");
        }
    }

    void step(Input& input) {
        const std::uint8_t what = input.u8();
        const std::uint8_t opnum = input.u8();
        if (opnum >= 0xFC && opnum < 0xFF) {
            return callBack(what, opnum);
        }
        const Object object = client_.object(what >> 4);
        if (object == nullptr) {
            return;
        }
        const Bytes stub = input.part();
        if (opnum == 0xFF) {
            client_.release(object);
            return;
        }
        if (orpc::Interface* target = interfaceOf(*object, what & 15)) {
            call(*target, opnum, stub);
        }
    }

 private:
    // Time goes by with new values, or one of the client's objects answers, or is lost.
    void callBack(std::uint8_t what, std::uint8_t how) {
        if (how == 0xFC) {
            control_.SLIKTags().Item("A.Flow").SetVQT(Variant(what * 0.5), 0xC0, localNow());
            static_cast<ManualTimeSource&>(timeSource()).advanceMilliseconds(what * std::int64_t{10});
            return loop_.advance(what * std::int64_t{10});
        }
        if (remotes_.objects.empty()) {
            return;
        }
        auto& object = *remotes_.objects[what % remotes_.objects.size()];
        if (how == 0xFE && !object.calls.empty()) {
            wire::test::FakeRemoteObjects::answer(object);
        } else if (how == 0xFD && !object.released) {
            wire::test::FakeRemoteObjects::giveUp(object);
        }
    }

    // The number counts the interfaces that the object has.
    static orpc::Interface* interfaceOf(orpc::ComObject& object, unsigned number) {
        std::vector<orpc::Interface*> found;
        for (const wire::InterfaceRow& row : wire::interfaceTable) {
            if (orpc::Interface* one = object.queryInterface(row.iid)) {
                found.push_back(one);
            }
        }
        return found.empty() ? nullptr : found[number % found.size()];
    }

    void call(orpc::Interface& target, std::uint16_t opnum, Bytes stub) {
        const ExactCopy exact(stub);
        dcom::ndr::Reader in({reinterpret_cast<const std::uint8_t*>(exact.text().data()), stub.size()});
        reply_.assign(8, 0);
        dcom::ndr::Writer out(reply_);
        const dcom::Fault fault = client_.statusOf(target.invoke(opnum, in, out, client_), reply_);
        require(fault != dcom::Fault::None || reply_.size() >= 12, "an answer holds a result");
        require(fault == dcom::Fault::None || fault == dcom::Fault::BadStubData || fault == dcom::Fault::OpnumRange,
                "a known fault");
        require(reply_.size() < 1000 * (stub.size() + 100), "a reply is of a sane length");
    }

    VirtualLoop loop_;
    SLIKServer control_{loop_, loop_};
    Host host_;
    wire::CallbackMessages messages_;
    wire::test::FakeRemoteObjects remotes_;
    wire::OutgoingCalls outgoing_{remotes_, messages_};
    opcda::Application application_{control_.network(), loop_, messages_};
    Client client_;
    std::vector<std::uint8_t> reply_;
};

}  // namespace

void runInput(Input input) {
    Plant plant;
    for (int steps = 0; steps < 60 && !input.empty(); ++steps) {
        plant.step(input);
    }
}

}  // namespace quelm::fuzz
