#pragma once

// Deviations that somebody has decided to live with, each with the reason: a line "NUMBER REASON" for a case.

#include <map>
#include <string>

namespace quelm::opcclient::check {

// Reasons by the cases' numbers.
using Known = std::map<int, std::string>;

// Empty lines and those that begin with "#" are passed over. Raises UsageError: the file cannot be read; a line has no
// number or no reason.
Known readKnown(const std::string& path);

}  // namespace quelm::opcclient::check
