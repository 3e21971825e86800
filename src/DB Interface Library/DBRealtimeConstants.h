#pragma once

// The realtime database's names that the I/O servers write under: the table of current values, its columns, and the
// keys of the records in it.

#include <string_view>

namespace quelm::realtime {

inline constexpr std::string_view currentIOTable = "CurrentIO";
inline constexpr std::string_view siteIDColumn = "SiteID";
inline constexpr std::string_view ioIDColumn = "IOID";
inline constexpr std::string_view timeStampColumn = "TStamp";
inline constexpr std::string_view nValueColumn = "NValue";
inline constexpr std::string_view xValueColumn = "XValue";

// A block of a multi-value channel: this and the channel ID.
inline constexpr std::string_view multiValueChannelKey = "MultiValueC";
// The I/O servers' health. The keys of the IOS5 carry no digit.
inline constexpr std::string_view ios5AllCommsOkKey = "IOS.AllCommsOk";
inline constexpr std::string_view ios5AllDataRefreshedKey = "IOS.AllDataRefreshed";
inline constexpr std::string_view ios6AllCommsOkKey = "IOS6.AllCommsOk";
inline constexpr std::string_view ios6AllDataRefreshedKey = "IOS6.AllDataRefreshed";

}  // namespace quelm::realtime
