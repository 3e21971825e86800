#include "window/ListSelection.h"

#include <algorithm>

namespace quelm {

void ListSelection::clear() {
    selected_.assign(selected_.size(), false);
}

void ListSelection::all() {
    selected_.assign(selected_.size(), true);
}

void ListSelection::only(std::size_t line) {
    clear();
    if (line < selected_.size()) {
        selected_[line] = true;
        anchor_ = cursor_ = line;
    }
}

void ListSelection::extendTo(std::size_t line) {
    if (!anchor_ || line >= selected_.size()) {
        only(line);
        return;
    }
    clear();
    for (std::size_t i = std::min(*anchor_, line); i <= std::max(*anchor_, line); ++i) {
        selected_[i] = true;
    }
    cursor_ = line;
}

void ListSelection::toggle(std::size_t line) {
    if (line < selected_.size()) {
        selected_[line] = !selected_[line];
        anchor_ = cursor_ = line;
    }
}

std::string ListSelection::text(const std::vector<std::string>& lines) const {
    std::string text;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (contains(i)) {
            text += lines[i];
            text += '\n';
        }
    }
    return text;
}

}  // namespace quelm
