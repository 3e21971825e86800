#include "base/PasswordPrompt.h"

#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>

namespace quelm {

namespace {

// While it lives, what is typed does not show.
class EchoOff {
 public:
    EchoOff() : isTerminal_(tcgetattr(STDIN_FILENO, &before_) == 0) {
        if (isTerminal_) {
            termios quiet = before_;
            quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
        }
    }
    ~EchoOff() {
        if (isTerminal_) {
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
        }
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;

 private:
    termios before_{};
    bool isTerminal_;
};

// A line of standard input; of a longer one than a password may be, one byte more than that.
std::string readPassword() {
    std::string password;
    password.reserve(longestPassword + 1);  // one place only, to be wiped
    for (int c = std::getchar(); c != EOF && c != '\n' && password.size() <= longestPassword; c = std::getchar()) {
        password += static_cast<char>(c);
    }
    return password;
}

}  // namespace

std::string readNewPassword() {
    if (isatty(STDIN_FILENO) != 1) {
        return readPassword();
    }
    const EchoOff quiet;
    std::fputs("Password: ", stderr);
    std::string password = readPassword();
    std::fputs("\nOnce more: ", stderr);
    std::string again = readPassword();
    std::fputs("\n", stderr);
    if (password != again) {
        std::fputs("The two are not the same\n", stderr);
        explicit_bzero(password.data(), password.size());
        password.clear();
    }
    explicit_bzero(again.data(), again.size());
    return password;
}

}  // namespace quelm
