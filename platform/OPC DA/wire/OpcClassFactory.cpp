#include "OPC DA/wire/OpcClassFactory.h"

#include "OPC DA/wire/OpcServerObject.h"
#include "SLIK-DA/Identity.h"

namespace quelm::opcda::wire {

dcom::Uuid OpcClassFactory::classId() const {
    static constexpr dcom::Uuid id = dcom::Uuid::parse(identity::classId);
    return id;
}

std::shared_ptr<dcom::orpc::ComObject> OpcClassFactory::create(const dcom::rpc::Peer& /*peer*/,
                                                               const std::string& /*account*/, dcom::HResult& result) {
    result = S_OK;
    return std::make_shared<OpcServerObject>(application_);
}

}  // namespace quelm::opcda::wire
