#pragma once

// The pattern of a client's browse filter: "*" any run of characters, "?" one character, "#" one digit,
// "[abc]" and "[a-z]" one of a list, "[!abc]" one that is not in it. Case does not matter.

#include <array>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quelm::opcda {

class NameFilter {
 public:
    // Characters of the longest pattern; four times the names that engineers give.
    static constexpr std::size_t longest = 256;

    // isValid() is false for a pattern with an unclosed "[" and for one that is too long.
    explicit NameFilter(std::string_view pattern);
    bool isValid() const { return valid_; }
    // An empty pattern fits every name. Takes as long as the name is, whatever the pattern: a client's filter is held
    // against every item of the plant while all other clients wait.
    bool matches(std::string_view name) const;

 private:
    struct Range {
        char32_t first;
        char32_t last;
    };
    // The characters that one place of the pattern takes: those in the ranges, or all others.
    struct Element {
        std::vector<Range> ranges;  // in order, none touching another
        bool others = false;

        bool takes(char32_t character) const;
    };
    // Bit n: so many elements of the pattern fit what was read of the name.
    using States = std::array<std::uint64_t, longest / 64 + 1>;

    static Element readList(std::string_view pattern, std::size_t& position, bool& closed);
    States takenBy(char32_t character) const;
    const States& statesThatTakeNext(std::string_view name, std::size_t& position) const;

    static constexpr std::size_t plainCharacters = 128;
    std::vector<Element> elements_;
    States staying_{};  // where any run of characters may be passed over
    std::vector<States> plain_;
    mutable std::unordered_map<char32_t, States> others_;  // of the characters that the plant's names have
    bool valid_ = true;
};

}  // namespace quelm::opcda
