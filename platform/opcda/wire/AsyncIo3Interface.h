#pragma once

// IOPCAsyncIO3 of a group: asynchronous calls with a maximum age, so that the plant is asked only for what is too old.

#include "opcda/wire/AsyncIo2Interface.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidOpcAsyncIo3 = "0967B97B-36EF-423E-B6F8-6BFF1E40D39D"_uuid;

// Behind those of IOPCAsyncIO2.
enum class AsyncIo3 : std::uint16_t {
    ReadMaxAge = dcom::orpc::opnumOf(AsyncIo2::GetEnable) + 1,
    WriteVqt,
    RefreshMaxAge,
};

class AsyncIo3Interface final : public dcom::orpc::Dispatched<AsyncIo3Interface, AsyncIoCalls> {
 public:
    static constexpr Uuid interfaceId = iidOpcAsyncIo3;
    static constexpr std::string_view interfaceName = "IOPCAsyncIO3";
    using Opnum = AsyncIo3;

    using Dispatched::Dispatched;

 private:
    dcom::Fault readMaxAge(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault writeVqt(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refreshMaxAge(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);

 public:
    static constexpr auto methods =
        methodsOf<AsyncIo3Interface>(Row{Opnum::ReadMaxAge, "ReadMaxAge", &AsyncIo3Interface::readMaxAge},
                                     Row{Opnum::WriteVqt, "WriteVQT", &AsyncIo3Interface::writeVqt},
                                     Row{Opnum::RefreshMaxAge, "RefreshMaxAge", &AsyncIo3Interface::refreshMaxAge});
};

}  // namespace quelm::opcda::wire
