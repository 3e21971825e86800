#include "OPC DA/NameFilter.h"

#include <algorithm>

#include "Shared Types/Text.h"
#include "Shared Types/Utf.h"

namespace quelm::opcda {

NameFilter::NameFilter(std::string_view pattern) {
    for (std::size_t position = 0; position < pattern.size() && valid_;) {
        Element element;
        element.character = foldCase(nextCodePoint(pattern, position));
        switch (element.character) {
            case U'*':
                element.kind = Element::Kind::anyRun;
                break;
            case U'?':
                element.kind = Element::Kind::any;
                break;
            case U'#':
                element.kind = Element::Kind::digit;
                break;
            case U'[':
                valid_ = readList(pattern, position, element);
                break;
            default:
                break;
        }
        elements_.push_back(std::move(element));
    }
}

// A "]" directly behind the opening closes an empty list, which fits no character; with "!" it fits every one.
bool NameFilter::readList(std::string_view pattern, std::size_t& position, Element& element) {
    const bool negated = position < pattern.size() && pattern[position] == '!';
    position += negated ? 1 : 0;
    element.kind = negated ? Element::Kind::listNot : Element::Kind::list;
    while (position < pattern.size() && pattern[position] != ']') {
        const char32_t first = foldCase(nextCodePoint(pattern, position));
        char32_t last = first;
        if (position + 1 < pattern.size() && pattern[position] == '-' && pattern[position + 1] != ']') {
            ++position;
            last = foldCase(nextCodePoint(pattern, position));
        }
        element.ranges.push_back({first, last});
    }
    if (position >= pattern.size()) {
        return false;
    }
    ++position;
    return true;
}

bool NameFilter::fits(const Element& element, char32_t character) {
    const auto isListed = [&element, character] {
        return std::any_of(element.ranges.begin(), element.ranges.end(), [character](const Range& range) {
            return character >= range.first && character <= range.last;
        });
    };
    switch (element.kind) {
        case Element::Kind::character:
            return element.character == character;
        case Element::Kind::digit:
            return character >= U'0' && character <= U'9';
        case Element::Kind::list:
            return isListed();
        case Element::Kind::listNot:
            return !isListed();
        default:
            return true;
    }
}

// Only the last "*" met is ever gone back to, so that no pattern of a client takes more than length times length.
bool NameFilter::matches(std::string_view name) const {
    if (elements_.empty()) {
        return true;
    }
    std::size_t at = 0;
    std::size_t position = 0;
    std::size_t afterRun = elements_.size() + 1;
    std::size_t runPosition = 0;
    while (position < name.size()) {
        if (at < elements_.size() && elements_[at].kind == Element::Kind::anyRun) {
            afterRun = ++at;
            runPosition = position;
            continue;
        }
        std::size_t next = position;
        const char32_t character = foldCase(nextCodePoint(name, next));
        if (at < elements_.size() && fits(elements_[at], character)) {
            ++at;
            position = next;
            continue;
        }
        if (afterRun > elements_.size()) {
            return false;
        }
        nextCodePoint(name, runPosition);
        position = runPosition;
        at = afterRun;
    }
    return std::all_of(elements_.begin() + static_cast<std::ptrdiff_t>(at), elements_.end(),
                       [](const Element& element) { return element.kind == Element::Kind::anyRun; });
}

}  // namespace quelm::opcda
