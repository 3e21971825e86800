#include "base/IniFile.h"

#include <algorithm>
#include <unordered_map>

#include "base/Text.h"

namespace quelm {

namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

bool isComment(std::string_view line) {
    return line.starts_with(';') || line.starts_with('#');
}

}  // namespace

std::string_view trimWhiteSpace(std::string_view text) {
    constexpr std::string_view space(" \t\r\n\v\f\0", 7);
    const std::size_t first = text.find_first_not_of(space);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(space) - first + 1);
}

std::string shownSetting(std::string_view text) {
    constexpr std::size_t longest = 64;  // characters
    std::string shown(leftCharacters(text, longest));
    const bool isCut = shown.size() < text.size();
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    return isCut ? shown + "..." : shown;
}

std::vector<std::string_view> splitAtCommas(std::string_view list) {
    std::vector<std::string_view> parts;
    for (;;) {
        const std::size_t comma = list.find(',');
        parts.push_back(trimWhiteSpace(list.substr(0, comma)));
        if (comma == std::string_view::npos) {
            return parts;
        }
        list.remove_prefix(comma + 1);
    }
}

const IniFile::Key* IniFile::Section::find(std::string_view wanted) const {
    const auto found =
        std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return equalsIgnoringCase(key.name, wanted); });
    return found == keys.end() ? nullptr : &*found;
}

IniFile::IniFile(std::string_view text) {
    if (text.starts_with(byteOrderMark)) {
        text.remove_prefix(byteOrderMark.size());
    }
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find_first_of("\r\n"), text.size());
        readLine(trimWhiteSpace(text.substr(0, end)), number);
        text.remove_prefix(std::min(end + (text.substr(end).starts_with("\r\n") ? 2 : 1), text.size()));
    }
    findFirstLines();
}

void IniFile::readLine(std::string_view line, int number) {
    if (line.empty() || isComment(line)) {
        return;
    }
    if (line.starts_with('[')) {
        readHeading(line, number);
        return;
    }
    const std::size_t equals = line.find('=');
    const std::string_view name = trimWhiteSpace(line.substr(0, equals));
    if (equals == std::string_view::npos || name.empty()) {
        faults_.push_back({number, "neither a [section] heading nor \"name = value\", the line is left out",
                           "Correct it, or begin it with ; to make it a comment"});
    } else if (!isUnderDamagedHeading_) {
        if (sections_.empty()) {
            sections_.push_back({.name = {}, .line = number, .keys = {}});
        }
        sections_.back().keys.push_back({name, trimWhiteSpace(line.substr(equals + 1)), number});
    }
}

void IniFile::readHeading(std::string_view line, int number) {
    const std::size_t close = line.find(']');
    isUnderDamagedHeading_ = close == std::string_view::npos;
    if (isUnderDamagedHeading_) {
        faults_.push_back({number, "a section heading without ], the lines under it are left out", "Add the ]"});
        return;
    }
    const std::string_view rest = trimWhiteSpace(line.substr(close + 1));
    if (!rest.empty() && !isComment(rest)) {
        faults_.push_back(
            {number, "what stands behind the section heading is left out", "Put it on a line of its own"});
    }
    sections_.push_back({.name = trimWhiteSpace(line.substr(1, close - 1)), .line = number, .keys = {}});
}

void IniFile::findFirstLines() {
    std::unordered_map<std::string, int> first;
    for (Section& section : sections_) {
        section.firstLine = first.emplace(foldCase(section.name), section.line).first->second;
    }
}

std::vector<IniFile::Repeat> IniFile::repeats(const Section& section) {
    std::unordered_map<std::string, const Key*> first;
    std::vector<Repeat> found;
    for (const Key& key : section.keys) {
        const auto [at, isNew] = first.emplace(foldCase(key.name), &key);
        if (!isNew) {
            found.push_back({at->second, &key});
        }
    }
    return found;
}

}  // namespace quelm
