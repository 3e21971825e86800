#pragma once

// Which lines of a growing list are selected, and where its cursor stands: what clicks and keys do to a list view that
// allows several selected lines.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

class ListSelection {
 public:
    // Lines beyond those selected so far are not selected; a list never shrinks.
    void grow(std::size_t lines) { selected_.resize(lines); }
    bool contains(std::size_t line) const { return line < selected_.size() && selected_[line]; }
    // The line that the last move or click went to.
    std::optional<std::size_t> cursor() const { return cursor_; }

    void clear();
    void all();
    // This line alone.
    void only(std::size_t line);
    // Everything from where the selection began to this line.
    void extendTo(std::size_t line);
    // This line in or out, the others as they are.
    void toggle(std::size_t line);

    // The selected lines, each ended by a line feed.
    std::string text(const std::vector<std::string>& lines) const;

 private:
    std::vector<bool> selected_;
    std::optional<std::size_t> anchor_;
    std::optional<std::size_t> cursor_;
};

}  // namespace quelm
