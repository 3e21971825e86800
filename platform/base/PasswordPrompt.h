#pragma once

// Passwords that are typed, or piped in: never shown, and never on a command line, where everybody can read them.

#include <termios.h>

#include <cstddef>
#include <string>

namespace quelm {

inline constexpr std::size_t longestPassword = 1024;  // bytes

// What is typed at a terminal does not show for this object's lifetime. Ctrl-C comes as a character, so that it cannot
// leave the terminal silent.
class NoEcho {
 public:
    explicit NoEcho(int terminal);
    ~NoEcho();
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;
    // False: this is no terminal, or one that cannot do that.
    bool holds() const { return holds_; }

    static constexpr char interruption = '\x03';

 private:
    int terminal_;
    termios before_{};
    bool holds_;
};

// A new password from standard input: at a terminal asked for twice, as nobody sees what is typed, otherwise the first
// line. "" where the two differ, there is none, or Ctrl-C comes instead; a longer one than may be comes cut behind the
// first byte too many. The caller wipes it.
std::string readNewPassword();

}  // namespace quelm
