#pragma once

// The pattern of a client's browse filter: "*" any run of characters, "?" one character, "#" one digit,
// "[abc]" and "[a-z]" one of a list, "[!abc]" one that is not in it. Case does not matter.

#include <string>
#include <string_view>
#include <vector>

namespace quelm::opcda {

class NameFilter {
 public:
    // isValid() is false for a pattern with an unclosed "[".
    explicit NameFilter(std::string_view pattern);
    bool isValid() const { return valid_; }
    // An empty pattern fits every name.
    bool matches(std::string_view name) const;

 private:
    struct Range {
        char32_t first;
        char32_t last;
    };
    struct Element {
        enum class Kind { character, anyRun, any, digit, list, listNot } kind = Kind::character;
        char32_t character = 0;
        std::vector<Range> ranges;
    };
    bool readList(std::string_view pattern, std::size_t& position, Element& element);
    static bool fits(const Element& element, char32_t character);

    std::vector<Element> elements_;
    bool valid_ = true;
};

}  // namespace quelm::opcda
