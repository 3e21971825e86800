#pragma once

// The identifiers of the interfaces that OPC DA clients ask for.

#include "base/Uuid.h"

namespace quelm::opcda::wire {

using namespace dcom::literals;

inline constexpr dcom::Uuid iidEnumUnknown = "00000100-0000-0000-C000-000000000046"_uuid;
inline constexpr dcom::Uuid iidEnumString = "00000101-0000-0000-C000-000000000046"_uuid;

inline constexpr dcom::Uuid iidOpcServer = "39C13A4D-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidOpcBrowseServerAddressSpace = "39C13A4F-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidOpcItemProperties = "39C13A72-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidOpcCommon = "F31DFDE2-07B6-11D2-B2D8-0060083BA1FB"_uuid;
inline constexpr dcom::Uuid iidOpcItemIo = "85C0B427-2893-4CBC-BD78-E5FC5146F08F"_uuid;

inline constexpr dcom::Uuid iidOpcGroupStateMgt = "39C13A50-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidOpcItemMgt = "39C13A54-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidOpcSyncIo = "39C13A52-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidOpcAsyncIo2 = "39C13A71-011E-11D0-9675-0020AFD8ADB3"_uuid;
inline constexpr dcom::Uuid iidEnumOpcItemAttributes = "39C13A55-011E-11D0-9675-0020AFD8ADB3"_uuid;

}  // namespace quelm::opcda::wire
