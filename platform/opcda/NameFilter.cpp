#include "opcda/NameFilter.h"

#include <algorithm>

#include "base/Text.h"
#include "base/Utf.h"

namespace quelm::opcda {

namespace {

template <class States>
void setBit(States& states, std::size_t number) {
    states[number / 64] |= std::uint64_t{1} << number % 64;
}

template <class States>
bool hasBit(const States& states, std::size_t number) {
    return (states[number / 64] >> number % 64 & 1) != 0;
}

}  // namespace

NameFilter::NameFilter(std::string_view pattern) {
    if (characterCount(pattern) > longest) {
        valid_ = false;
        return;
    }
    for (std::size_t position = 0; position < pattern.size() && valid_;) {
        const char32_t character = foldCase(nextCodePoint(pattern, position));
        switch (character) {
            case U'*':
                setBit(staying_, elements_.size());
                break;
            case U'?':
                elements_.push_back({{}, true});
                break;
            case U'#':
                elements_.push_back({{{U'0', U'9'}}, false});
                break;
            case U'[':
                elements_.push_back(readList(pattern, position, valid_));
                break;
            default:
                elements_.push_back({{{character, character}}, false});
                break;
        }
    }
    for (char32_t character = 0; character < plainCharacters; ++character) {
        plain_.push_back(takenBy(foldCase(character)));
    }
}

// A "]" directly behind the opening closes an empty list, which fits no character; with "!" it fits every one.
NameFilter::Element NameFilter::readList(std::string_view pattern, std::size_t& position, bool& closed) {
    Element element;
    element.others = position < pattern.size() && pattern[position] == '!';
    position += element.others ? 1 : 0;
    std::vector<Range> listed;
    while (position < pattern.size() && pattern[position] != ']') {
        const char32_t first = foldCase(nextCodePoint(pattern, position));
        char32_t last = first;
        if (position + 1 < pattern.size() && pattern[position] == '-' && pattern[position + 1] != ']') {
            ++position;
            last = foldCase(nextCodePoint(pattern, position));
        }
        if (first <= last) {
            listed.push_back({first, last});
        }
    }
    closed = position < pattern.size();
    ++position;
    std::sort(listed.begin(), listed.end(),
              [](const Range& left, const Range& right) { return left.first < right.first; });
    for (const Range& range : listed) {
        if (!element.ranges.empty() && range.first <= element.ranges.back().last + 1) {
            element.ranges.back().last = std::max(element.ranges.back().last, range.last);
        } else {
            element.ranges.push_back(range);
        }
    }
    return element;
}

bool NameFilter::Element::takes(char32_t character) const {
    const auto behind = std::upper_bound(ranges.begin(), ranges.end(), character,
                                         [](char32_t wanted, const Range& range) { return wanted < range.first; });
    const bool listed = behind != ranges.begin() && character <= std::prev(behind)->last;
    return listed != others;
}

NameFilter::States NameFilter::takenBy(char32_t character) const {
    States states{};
    for (std::size_t i = 0; i < elements_.size(); ++i) {
        if (elements_[i].takes(character)) {
            setBit(states, i);
        }
    }
    return states;
}

// Moves position behind the character there.
const NameFilter::States& NameFilter::statesThatTakeNext(std::string_view name, std::size_t& position) const {
    if (const auto plain = static_cast<unsigned char>(name[position]); plain < plainCharacters) {
        ++position;
        return plain_[plain];
    }
    const char32_t character = foldCase(nextCodePoint(name, position));
    const auto known = others_.find(character);
    return known != others_.end() ? known->second : others_.emplace(character, takenBy(character)).first->second;
}

// All ways in which the pattern may fit are followed at once, a bit for each.
bool NameFilter::matches(std::string_view name) const {
    const std::size_t all = elements_.size();
    const std::size_t words = all / 64 + 1;
    const bool anyEnd = hasBit(staying_, all);
    if (all == 0) {
        return true;
    }
    States states{1};
    for (std::size_t position = 0; position < name.size();) {
        const States& taking = statesThatTakeNext(name, position);
        std::uint64_t carry = 0;
        std::uint64_t any = 0;
        for (std::size_t i = 0; i < words; ++i) {
            const std::uint64_t taken = states[i] & taking[i];
            states[i] = (states[i] & staying_[i]) | taken << 1 | carry;
            carry = taken >> 63;
            any |= states[i];
        }
        if (any == 0) {
            return false;
        }
        if (anyEnd && hasBit(states, all)) {
            return true;
        }
    }
    return hasBit(states, all);
}

}  // namespace quelm::opcda
