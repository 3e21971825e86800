#include "OPC/Client/Screen.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "dcom/Printable.h"

namespace quelm::opcclient {

namespace {

bool allowsColor() {
    const char* const none = std::getenv("NO_COLOR");
    const char* const terminal = std::getenv("TERM");
    return (none == nullptr || *none == '\0') && terminal != nullptr && std::string_view(terminal) != "dumb";
}

std::string_view escapeOf(Tone tone) {
    switch (tone) {
        case Tone::Good:
            return "\033[32m";
        case Tone::Doubtful:
            return "\033[33m";
        case Tone::Bad:
            return "\033[31m";
        case Tone::Faint:
            return "\033[2m";
        case Tone::Strong:
            return "\033[1m";
        case Tone::Plain:
            break;
    }
    return "";
}

void put(std::FILE* stream, std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stream);
}

}  // namespace

std::string printable(std::string_view text) {
    return dcom::printable(text, text.size());
}

Screen::Screen(bool color)
    : isTerminal_(isatty(STDOUT_FILENO) == 1),
      canShowProgress_(isatty(STDERR_FILENO) == 1),
      color_(color && isTerminal_ && allowsColor()) {}

void Screen::line(std::string_view text) {
    tonedLine(printable(text));
}

void Screen::tonedLine(std::string_view text) {
    endProgress();
    put(stdout, text);
    put(stdout, isTerminal_ ? "\033[K\n" : "\n");
}

std::string Screen::toned(std::string_view text, Tone tone) const {
    const std::string_view escape = color_ ? escapeOf(tone) : "";
    return escape.empty() ? printable(text) : fmt::format("{}{}\033[0m", escape, printable(text));
}

void Screen::words(std::string_view text) {
    put(stdout, text);
}

void Screen::message(std::string_view text) {
    endProgress();
    std::fflush(stdout);
    std::string_view lead = "opcda: ";
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        put(stderr, fmt::format("{}{}\n", lead, printable(text.substr(0, end))));
        text.remove_prefix(std::min(end + 1, text.size()));
        lead = "";
    }
}

void Screen::progress(std::string_view text) {
    if (canShowProgress_) {
        put(stderr, fmt::format("\r\033[K{}", printable(text)));
        hasProgress_ = true;
    }
}

void Screen::endProgress() {
    if (hasProgress_) {
        put(stderr, "\r\033[K");
        hasProgress_ = false;
    }
}

void Screen::redraw(const std::vector<std::string>& lines) {
    put(stdout, drawn_ > 0 ? fmt::format("\033[{}A\r\033[?7l", drawn_) : "\033[?7l");
    for (const std::string& line : lines) {
        tonedLine(line);
    }
    put(stdout, "\033[J\033[?7h");
    drawn_ = lines.size();
    std::fflush(stdout);
}

bool Screen::flush() {
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

Screen::Size Screen::size() const {
    winsize size{};
    const bool isKnown = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
    return isKnown ? Size{size.ws_col, size.ws_row} : Size{80, 24};
}

}  // namespace quelm::opcclient
