#pragma once

// A call's context that remembers the objects that it wrote. In place of an object's reference stand a pointer, the
// length twice, and four marker bytes.

#include <memory>
#include <string>
#include <vector>

#include "DCOM/orpc/ComObject.h"
#include "DCOM/orpc/OrpcTypes.h"

namespace quelm::opcda::wire::test {

class FakeContext : public dcom::orpc::CallContext {
 public:
    std::vector<std::shared_ptr<dcom::orpc::ComObject>> written;

    dcom::HResult writeInterface(dcom::ndr::Writer& out, const std::shared_ptr<dcom::orpc::ComObject>& object,
                                 const dcom::Uuid& iid) override {
        if (!object || (iid != dcom::orpc::iidUnknown && object->queryInterface(iid) == nullptr)) {
            out.nullPointer();
            return dcom::E_NOINTERFACE;
        }
        written.push_back(object);
        out.pointer();
        for (const std::uint32_t word : {4U, 4U, 0x574F454DU}) {
            out.u32(word);
        }
        return dcom::S_OK;
    }
    const dcom::rpc::Peer& peer() const override { return peer_; }
    const std::string& account() const override { return account_; }

 private:
    dcom::rpc::Peer peer_{7, "192.0.2.9:50000", "192.0.2.1", 49200};
    std::string account_ = "PLANT\\historian";
};

}  // namespace quelm::opcda::wire::test
