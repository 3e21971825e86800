#pragma once

// The names that this server and the I/O servers agree on in command message records: the queues, the commands and the
// mark of a record that is done.

#include <string_view>

namespace quelm::iocommand {

// Message types of the records that the IOS5 and the IOS6 I/O server pick up.
inline constexpr std::string_view queueIOS5 = "Q5IOCOMMAND";
inline constexpr std::string_view queueIOS6 = "Q6IOCOMMAND";

inline constexpr std::string_view writeToChannel = "WriteToChannel";
inline constexpr std::string_view refreshAllData = "RefreshAllData";
inline constexpr std::string_view refreshSelectedChannels = "RefreshSelectedChannels";

// State of a record that its I/O server has processed; compared letter by letter.
inline constexpr std::string_view stateDone = "DONE";

}  // namespace quelm::iocommand
