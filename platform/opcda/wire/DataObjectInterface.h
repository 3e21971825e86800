#pragma once

// IDataObject of a group, where clients of data access 1.0 see which streams there are, give their sinks, each for one
// stream, and take them back. Its other methods move data between programs in ways that such clients never ask a group
// for.

#include <span>

#include "dcom/orpc/MethodTable.h"
#include "opcda/Callbacks.h"
#include "opcda/HResults.h"
#include "opcda/wire/StreamFormats.h"

namespace quelm::opcda::wire {

using namespace literals;

inline constexpr Uuid iidDataObject = "0000010E-0000-0000-C000-000000000046"_uuid;

enum class DataObject : std::uint16_t {
    GetData = dcom::orpc::firstOpnum,
    GetDataHere,
    QueryGetData,
    GetCanonicalFormatEtc,
    SetData,
    EnumFormatEtc,
    DAdvise,
    DUnadvise,
    EnumDAdvise,
};

class OpcGroupObject;

class DataObjectInterface final : public dcom::orpc::Dispatched<DataObjectInterface> {
 public:
    static constexpr Uuid interfaceId = iidDataObject;
    static constexpr std::string_view interfaceName = "IDataObject";
    using Opnum = DataObject;

    explicit DataObjectInterface(OpcGroupObject& object) : object_(object) {}

 private:
    // Methods that there is nothing of, by what they would give beside their result.
    dcom::Fault refuse(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refuseObject(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refuseFormat(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault refuseMedium(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault query(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault enumerate(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault advise(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    dcom::Fault unadvise(dcom::ndr::Reader& in, dcom::ndr::Writer& out, dcom::orpc::CallContext& context);
    HResult connect(const AskedFormat& format, std::span<const std::uint8_t> reference,
                    const dcom::orpc::CallContext& context, std::uint32_t& connection);

    OpcGroupObject& object_;

 public:
    static constexpr std::array methods{
        Row{Opnum::GetData, "GetData", &DataObjectInterface::refuseMedium},
        Row{Opnum::GetDataHere, "GetDataHere", &DataObjectInterface::refuseMedium},
        Row{Opnum::QueryGetData, "QueryGetData", &DataObjectInterface::query},
        Row{Opnum::GetCanonicalFormatEtc, "GetCanonicalFormatEtc", &DataObjectInterface::refuseFormat},
        Row{Opnum::SetData, "SetData", &DataObjectInterface::refuse},
        Row{Opnum::EnumFormatEtc, "EnumFormatEtc", &DataObjectInterface::enumerate},
        Row{Opnum::DAdvise, "DAdvise", &DataObjectInterface::advise},
        Row{Opnum::DUnadvise, "DUnadvise", &DataObjectInterface::unadvise},
        Row{Opnum::EnumDAdvise, "EnumDAdvise", &DataObjectInterface::refuseObject},
    };
};

}  // namespace quelm::opcda::wire
