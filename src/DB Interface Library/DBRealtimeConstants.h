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
// Returns a site's current values where the database has procedures; its arguments are the site ID and whether implicit
// channels are wanted (0 or 1).
inline constexpr std::string_view currentIOProcedure = "csp_GetCurrentIO2";

// A block of a multi-value channel: this and the channel ID.
inline constexpr std::string_view multiValueChannelKey = "MultiValueC";
// The I/O servers' health. The keys of the IOS5 carry no digit.
inline constexpr std::string_view ios5AllCommsOkKey = "IOS.AllCommsOk";
inline constexpr std::string_view ios5AllDataRefreshedKey = "IOS.AllDataRefreshed";
inline constexpr std::string_view ios6AllCommsOkKey = "IOS6.AllCommsOk";
inline constexpr std::string_view ios6AllDataRefreshedKey = "IOS6.AllDataRefreshed";

}  // namespace quelm::realtime
