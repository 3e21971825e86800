#pragma once

// The operator at the other end: lines on standard output and standard error, questions, progress while waiting.
// Control characters out of a database never reach a terminal.

#include <optional>
#include <string>
#include <string_view>

namespace quelm::tools {

void showLine(std::string_view line);
// The program's own words, line breaks and all.
void showText(std::string_view text);
// False when standard output did not take all of it.
bool allShown();
// On standard error, led by the program's name.
void showProblem(std::string_view line);

// Who runs this program, for people.
std::string userName();

// Whether somebody sits there who can be asked.
bool canAsk();
// The answer's text, without line end; nothing at the end of input.
std::optional<std::string> ask(std::string_view question);
// The next line of standard input, with a prompt where somebody sits there.
std::optional<std::string> nextCommandLine();

// A line that replaces itself, where standard error is a terminal.
class ProgressLine {
 public:
    ProgressLine() = default;
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine() { clear(); }
    void show(std::string_view text);
    void clear();

 private:
    bool isShown_ = false;
};

}  // namespace quelm::tools
