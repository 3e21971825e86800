#include "OPC/Tools/Terminal.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>

namespace quelm::tools {

namespace {

bool isControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
}

std::string printable(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (isControl(c)) {
            c = '?';
        }
    }
    return out;
}

std::optional<std::string> readLine() {
    std::string line;
    if (!std::getline(std::cin, line)) {
        return std::nullopt;
    }
    return line;
}

}  // namespace

void showLine(std::string_view line) {
    std::fprintf(stdout, "%s\n", printable(line).c_str());
    std::fflush(stdout);
}

void showText(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

bool allShown() {
    return std::ferror(stdout) == 0;
}

void showProblem(std::string_view line) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, printable(line).c_str());
}

std::string userName() {
    const passwd* user = getpwuid(geteuid());
    return user == nullptr ? "user " + std::to_string(geteuid()) : user->pw_name;
}

bool canAsk() {
    return isatty(STDIN_FILENO) == 1;
}

std::optional<std::string> ask(std::string_view question) {
    std::fprintf(stderr, "%s ", printable(question).c_str());
    return readLine();
}

std::optional<std::string> nextCommandLine() {
    return canAsk() ? ask("iosctl>") : readLine();
}

void ProgressLine::show(std::string_view text) {
    if (isatty(STDERR_FILENO) == 1) {
        std::fprintf(stderr, "\r\033[K%s", printable(text).c_str());
        isShown_ = true;
    }
}

void ProgressLine::clear() {
    if (isShown_) {
        std::fprintf(stderr, "\r\033[K");
        isShown_ = false;
    }
}

}  // namespace quelm::tools
