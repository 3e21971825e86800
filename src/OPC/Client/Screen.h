#pragma once

// Where the program writes: answers on standard output, messages and progress on standard error. What came from a
// server never reaches a terminal with control characters in it.

#include <string>
#include <string_view>
#include <vector>

namespace quelm::opcclient {

enum class Tone { Plain, Good, Doubtful, Bad, Faint, Strong };

class Screen {
 public:
    // color: whether colours are wanted at all; they show on a terminal only.
    explicit Screen(bool color);

    // Whether standard output, or standard error, is a terminal.
    bool isTerminal() const { return isTerminal_; }
    bool canShowProgress() const { return canShowProgress_; }

    // On standard output, as it stands but for control characters; a line break is added.
    void line(std::string_view text);
    // The same with what toned() has put in.
    void tonedLine(std::string_view text);
    // Control characters replaced, in colour where colours show.
    std::string toned(std::string_view text, Tone tone) const;
    // The program's own words, line breaks and all.
    void words(std::string_view text);

    // On standard error, led by the program's name; a line break begins a further line.
    void message(std::string_view text);
    // A line on standard error that replaces itself; nothing where that is no terminal.
    void progress(std::string_view text);
    void endProgress();

    // On a terminal: takes the place of what the call before has shown. Lines as for tonedLine, cut at the edge.
    void redraw(const std::vector<std::string>& lines);
    // Writes out what is held back. False when standard output did not take all of it.
    bool flush();
    // Of the terminal; 80 by 24 where that is not known.
    struct Size {
        std::size_t columns = 80;
        std::size_t rows = 24;
    };
    Size size() const;

 private:
    bool isTerminal_;
    bool canShowProgress_;
    bool color_;
    bool hasProgress_ = false;
    std::size_t drawn_ = 0;  // lines
};

// Control characters as "?", C1 ones and broken UTF-8 included.
std::string printable(std::string_view text);

}  // namespace quelm::opcclient
