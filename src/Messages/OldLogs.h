#pragma once

// Lets go of the server's logs when they are old, where the operator wants that.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace quelm {

// Removes from the folder (backslashes count as separators) the log files of this server, known by their whole name,
// that began more than so many days ago and have had no line since. days: 1 or more; 0: all logs are kept. Whatever
// else is there, links included, stays. problem: takes one line where files cannot be removed. Never raises.
void removeOldLogs(std::string_view folder, std::int32_t days, const std::function<void(std::string_view)>& problem);

}  // namespace quelm
