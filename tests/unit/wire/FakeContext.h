#pragma once

// A call's context that remembers the objects that it wrote. In place of an object's reference stand a pointer, the
// length twice, and four marker bytes.

#include <memory>
#include <string>
#include <vector>

#include "dcom/orpc/ComObject.h"
#include "dcom/orpc/OrpcTypes.h"

namespace quelm::opcda::wire::test {

using dcom::Fault;

class FakeContext : public dcom::orpc::CallContext {
 public:
    std::vector<std::shared_ptr<dcom::orpc::ComObject>> written;

    HResult writeInterface(dcom::ndr::Writer& out, const std::shared_ptr<dcom::orpc::ComObject>& object,
                           const Uuid& iid) override {
        if (!object || (iid != dcom::orpc::iidUnknown && object->queryInterface(iid) == nullptr)) {
            out.nullPointer();
            return E_NOINTERFACE;
        }
        written.push_back(object);
        out.pointer();
        for (const std::uint32_t word : {4U, 4U, 0x574F454DU}) {
            out.u32(word);
        }
        return S_OK;
    }
    std::shared_ptr<dcom::orpc::DeferredReply> defer(const dcom::ndr::Writer& out) override {
        const auto head = out.written();
        late_ = std::make_shared<Answer>();
        return std::make_shared<dcom::orpc::DeferredReply>(dcom::rpc::CallTicket(late_),
                                                           std::vector<std::uint8_t>(head.begin(), head.end()));
    }
    // How a call ended that invoke gave an end for, and its reply, when it comes late; by then it must be there.
    Fault statusOf(Fault status, std::vector<std::uint8_t>& stub) {
        if (status != Fault::Deferred) {
            return status;
        }
        stub.insert(stub.end(), late_->stub.begin(), late_->stub.end());
        return late_->status;
    }

    const dcom::rpc::Peer& peer() const override { return peer_; }
    const std::string& account() const override { return account_; }

 private:
    struct Answer final : dcom::rpc::IDeferredAnswer {
        void complete(Fault late, std::span<const std::uint8_t> results) override {
            status = late;
            stub.assign(results.begin(), results.end());
        }
        Fault status = Fault::Deferred;
        std::vector<std::uint8_t> stub;
    };

    std::shared_ptr<Answer> late_;
    dcom::rpc::Peer peer_{7, "192.0.2.9:50000", "192.0.2.1", 49200};
    std::string account_ = "PLANT\\historian";
};

}  // namespace quelm::opcda::wire::test
