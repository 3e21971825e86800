#pragma once

// Passwords that are typed, or piped in: never shown, and never on a command line, where everybody can read them.

#include <cstddef>
#include <string>

namespace quelm {

inline constexpr std::size_t longestPassword = 1024;  // bytes

// A new password from standard input: at a terminal asked for twice, as nobody sees what is typed, otherwise the first
// line. "" where the two differ or there is none; a longer one than may be comes cut behind the first byte too many.
// The caller wipes it.
std::string readNewPassword();

}  // namespace quelm
