#include "base/PasswordPrompt.h"

#include <string.h>
#include <unistd.h>

#include <cstdio>

namespace quelm {

namespace {

// A line of standard input; of a longer one than a password may be, one byte more than that.
std::string readPassword() {
    std::string password;
    password.reserve(longestPassword + 1);  // one place only, to be wiped
    for (int c = std::getchar(); c != EOF && c != '\n' && password.size() <= longestPassword; c = std::getchar()) {
        password += static_cast<char>(c);
        if (password.back() == NoEcho::interruption) {
            explicit_bzero(password.data(), password.size());
            return {};
        }
    }
    return password;
}

}  // namespace

NoEcho::NoEcho(int terminal) : terminal_(terminal), holds_(tcgetattr(terminal, &before_) == 0) {
    if (holds_) {
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        holds_ = tcsetattr(terminal_, TCSAFLUSH, &silent) == 0;
    }
}

NoEcho::~NoEcho() {
    if (holds_) {
        tcsetattr(terminal_, TCSAFLUSH, &before_);
    }
}

std::string readNewPassword() {
    if (isatty(STDIN_FILENO) != 1) {
        return readPassword();
    }
    const NoEcho quiet(STDIN_FILENO);
    std::fputs("Password: ", stderr);
    std::string password = readPassword();
    std::fputs(password.empty() ? "" : "\nOnce more: ", stderr);
    std::string again = password.empty() ? std::string() : readPassword();
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
