#pragma once

// Our own server's wire half, called by the client library's typed calls without a network between: each method's
// parameters and results pass through their marshalled form.

#include <set>

#include "dcom/client/Interface.h"
#include "opcclient/Scripted.h"
#include "opcda/client/CallbackHost.h"
#include "wire/OpcSupport.h"

namespace quelm::opcda::client::test {

using dcom::client::IRemote;
using dcom::client::Trouble;
using quelm::test::Bytes;
using quelm::test::Parameters;
using wire::test::Object;

// Objects go to the client as their number and the interface.
class NumberedObjects : public wire::test::FakeContext {
 public:
    HResult writeInterface(dcom::ndr::Writer& out, const Object& object, const Uuid& iid) override {
        if (!object || (iid != dcom::orpc::iidUnknown && object->queryInterface(iid) == nullptr)) {
            out.nullPointer();
            return E_NOINTERFACE;
        }
        constexpr std::uint32_t size = 20;
        out.pointer();
        out.u32(size);
        out.u32(size);
        out.u32(static_cast<std::uint32_t>(written.size()));
        out.uuid(iid);
        written.push_back(object);
        return S_OK;
    }
};

struct World {
    VirtualLoop& loop;
    NumberedObjects context;
    std::set<Uuid> hidden;       // interfaces that the server is to do without
    std::vector<Bytes> answers;  // of all calls
};

class LoopRemote final : public IRemote {
 public:
    LoopRemote(World& world, Object object, const Uuid& iid) : world_(world), object_(std::move(object)), iid_(iid) {}

    const Uuid& iid() const override { return iid_; }
    const Uuid& ipid() const override { return iid_; }
    std::uint64_t oid() const override { return 0; }
    std::uint64_t oxid() const override { return 0; }

    Bytes call(std::uint16_t opnum, const Interface::Parameters& parameters) override {
        Bytes stub;
        dcom::ndr::Writer writer(stub);
        parameters(writer);
        dcom::ndr::Reader in(stub);
        Bytes answer;
        dcom::ndr::Writer out(answer);
        dcom::Fault fault = object_->queryInterface(iid_)->invoke(opnum, in, out, world_.context);
        world_.loop.drain();
        fault = world_.context.statusOf(fault, answer);
        if (fault != dcom::Fault::None) {
            throw Trouble(Trouble::Kind::Fault, {}, "a fault", fmt::underlying(fault));
        }
        world_.answers.push_back(answer);
        return answer;
    }
    Interface::Queried query(const Uuid& iid) override {
        if (world_.hidden.contains(iid) || object_->queryInterface(iid) == nullptr) {
            return {E_NOINTERFACE, std::nullopt};
        }
        return {S_OK, Interface(std::make_shared<LoopRemote>(world_, object_, iid))};
    }
    std::optional<Interface> adopt(std::span<const std::uint8_t> reference) override {
        dcom::ndr::Reader in(reference);
        const std::uint32_t number = in.u32();
        const Uuid iid = in.uuid();
        return Interface(std::make_shared<LoopRemote>(world_, world_.context.written.at(number), iid));
    }

 private:
    World& world_;
    Object object_;
    Uuid iid_;
};

// Callbacks arrive while somebody waits for them, ten milliseconds of the test's time after the other.
class LoopCallbacks final : public ICallbackHost {
 public:
    LoopCallbacks(wire::test::FakeRemoteObjects& remotes, VirtualLoop& loop, ManualTimeSource& time)
        : remotes_(remotes), loop_(loop), time_(time) {}

    bool isDeaf = false;  // a firewall keeps all calls from us

    // An object reference whose object has the callback's number.
    Bytes exportObject(const Uuid& /*iid*/, dcom::client::ICallback& callback) override {
        callbacks_.push_back(&callback);
        return Parameters()
            .hex("4D454F57 01000000 00000000 0000 0000 C000 000000000046 00000000 05000000 0102030405060708")
            .u64(callbacks_.size() - 1)
            .hex(
                "21222324252627282922B2C2D2E2F303 0F00 0B00 0700 3100 3000 2E00 3000 2E00 3000 2E00 3200 0000 0000"
                "0A00 FFFF 0000 0000")
            .bytes();
    }
    void withdraw(dcom::client::ICallback& callback) override {
        std::ranges::replace(callbacks_, &callback, static_cast<dcom::client::ICallback*>(nullptr));
    }
    bool runUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) override {
        for (std::int64_t elapsed = 0;; elapsed += 10) {
            loop_.drain();
            handOver();
            if (condition() || elapsed >= limit.count()) {
                return condition();
            }
            time_.advanceMilliseconds(10);
            loop_.advance(10);
        }
    }
    std::string callbackAddress() const override { return "10.0.0.2:40123"; }

 private:
    void handOver() {
        for (const auto& object : remotes_.objects) {
            while (!isDeaf && !object->released && !object->calls.empty()) {
                const auto call = wire::test::FakeRemoteObjects::answer(*object);
                auto* const callback = callbacks_.at(object->request.reference.object.oid);
                ASSERT_NE(callback, nullptr) << "called after it was withdrawn";
                dcom::ndr::Reader in(call.parameters);
                EXPECT_EQ(callback->called(call.opnum, in), S_OK);
                EXPECT_TRUE(in.good());
            }
        }
    }

    wire::test::FakeRemoteObjects& remotes_;
    VirtualLoop& loop_;
    ManualTimeSource& time_;
    std::vector<dcom::client::ICallback*> callbacks_;
};

class ClientTest : public wire::test::OpcWire {
 protected:
    Interface serverObject(const Uuid& iid) { return Interface(std::make_shared<LoopRemote>(world_, server_, iid)); }
    std::unique_ptr<LoopCallbacks> callbacks() { return std::make_unique<LoopCallbacks>(remotes_, loop_, time_); }

    World world_{loop_, {}, {}, {}};
};

}  // namespace quelm::opcda::client::test
