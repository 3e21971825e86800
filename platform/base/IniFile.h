#pragma once

// A settings file: sections in brackets, lines of the form name = value, comments behind ; or # at a line's beginning.
// Everything is kept in the file's order and with its line, so that what stands twice, or is damaged, can be told to
// who can mend it.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

class IniFile {
 public:
    // What the parser left out, in words for the operator.
    struct Fault {
        int line;  // from 1
        std::string_view what;
        std::string_view remedy;
    };
    struct Key {
        std::string_view name;   // never empty
        std::string_view value;  // without white space at its ends; a ; or # within belongs to it
        int line;
    };
    struct Section {
        std::string_view name;  // "" for the lines before the first heading
        int line = 0;           // of its heading, or of its first key
        int firstLine = 0;      // of the first section of that name, in whatever case
        std::vector<Key> keys;

        bool isRepeated() const { return firstLine != line; }
        // The first key of that name, in whatever case; nullptr when there is none.
        const Key* find(std::string_view wanted) const;
    };
    // A name that stands more than once in a section.
    struct Repeat {
        const Key* first;
        const Key* again;

        bool isContradiction() const { return first->value != again->value; }
    };

    // text: UTF-8 with or without byte order mark, lines ending with CR, LF or both. All names and values are parts of
    // it: it must outlive this object and may be wiped behind it. Raises std::bad_alloc only.
    explicit IniFile(std::string_view text);

    // In the file's order; sections of one name stay apart. Lines under a heading that cannot be read are in none.
    const std::vector<Section>& sections() const { return sections_; }
    const std::vector<Fault>& faults() const { return faults_; }
    // In the order of the repetitions.
    static std::vector<Repeat> repeats(const Section& section);

 private:
    void readLine(std::string_view line, int number);
    void readHeading(std::string_view line, int number);
    void findFirstLines();

    std::vector<Section> sections_;
    std::vector<Fault> faults_;
    bool isUnderDamagedHeading_ = false;
};

// Outside text as a message may show it: short, and on one line.
std::string shownSetting(std::string_view text);

// Without white space, NUL bytes included, at both ends.
std::string_view trimWhiteSpace(std::string_view text);

// The parts between commas, without white space at their ends, empty ones included; one at least.
std::vector<std::string_view> splitAtCommas(std::string_view list);

}  // namespace quelm
