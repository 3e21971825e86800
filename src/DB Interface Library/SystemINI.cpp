#include "DB Interface Library/SystemINI.h"

// Text is UTF-8 in the file and here, so the library's converters are left out; its code is compiled in right here.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "Shared Types/RuntimeError.h"
#include "Shared Types/Text.h"

namespace quelm {

namespace {

constexpr std::string_view damagedHeading = "[?]";
// Seconds: beyond this nobody waits for a display to move on.
constexpr std::int32_t longestTimeout = 300;

std::string_view trimSpace(std::string_view text) {
    constexpr std::string_view space = " \t\r\n\v\f";
    const std::size_t first = text.find_first_not_of(space);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(space) - first + 1);
}

// What stands in the file as a problem line may show it: short and on one line.
std::string shown(std::string_view value) {
    std::string text(leftCharacters(value, 64));
    const bool isCut = text.size() < value.size();
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    return isCut ? text + "..." : text;
}

std::optional<std::int32_t> wholeNumber(std::string_view text) {
    std::int32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

std::optional<bool> yesOrNo(std::string_view text) {
    for (const std::string_view word : {"yes", "true", "1"}) {
        if (equalsIgnoringCase(text, word)) {
            return true;
        }
    }
    for (const std::string_view word : {"", "no", "false", "0"}) {
        if (equalsIgnoringCase(text, word)) {
            return false;
        }
    }
    return std::nullopt;
}

std::vector<std::string> splitNames(std::string_view list) {
    std::vector<std::string> names;
    while (!list.empty()) {
        const std::size_t comma = list.find(',');
        if (const std::string_view name = trimSpace(list.substr(0, comma)); !name.empty()) {
            names.emplace_back(name);
        }
        list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
    }
    return names;
}

std::string_view shortName(std::string_view computer) {
    return computer.substr(0, computer.find('.'));
}

// A name without domain means the computer of that name in whatever domain.
bool isSameComputer(std::string_view left, std::string_view right) {
    const bool bothFull = left.find('.') != std::string_view::npos && right.find('.') != std::string_view::npos;
    return bothFull ? equalsIgnoringCase(left, right) : equalsIgnoringCase(shortName(left), shortName(right));
}

}  // namespace

std::string systemIniPath() {
    const char* path = std::getenv("QUELM_INI");
    return path != nullptr && *path != '\0' ? path : "/etc/quelm/Quelm.ini";
}

std::string thisComputer() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : std::string();
}

class SystemINI::File {
 public:
    bool load(const std::string& contents) {
        ini_.SetUnicode(true);
        return ini_.LoadData(contents) >= SI_OK;
    }

    std::vector<std::string> sections() const {
        CSimpleIniCaseA::TNamesDepend names;
        ini_.GetAllSections(names);
        names.sort(CSimpleIniCaseA::Entry::LoadOrder());
        std::vector<std::string> sections;
        for (const auto& name : names) {
            sections.emplace_back(name.pItem);
        }
        return sections;
    }

    std::string value(const std::string& section, std::string_view key) const {
        for (const auto& [name, value] : keys(section)) {
            if (equalsIgnoringCase(name, key)) {
                return value;
            }
        }
        return {};
    }

 private:
    std::vector<std::pair<std::string, std::string>> keys(const std::string& section) const {
        std::vector<std::pair<std::string, std::string>> found;
        CSimpleIniCaseA::TNamesDepend names;
        ini_.GetAllKeys(section.c_str(), names);
        for (const auto& name : names) {
            found.emplace_back(name.pItem, trimSpace(ini_.GetValue(section.c_str(), name.pItem, "")));
        }
        return found;
    }

    CSimpleIniCaseA ini_;
};

bool SystemINI::ReadINI(std::int32_t, bool blnReport) {
    logFolder_.clear();
    timeouts_ = {};
    entries_.clear();
    placements_.clear();
    selected_.reset();

    std::optional<std::string> contents = readFile(blnReport);
    if (!contents) {
        return false;
    }
    takeOutDamage(*contents, blnReport);
    File file;
    if (!file.load(*contents)) {
        report(blnReport, "not an INI file");
        return false;
    }
    for (const std::string& section : file.sections()) {
        if (equalsIgnoringCase(section, "System")) {
            logFolder_ = file.value(section, "LogFolder");
            readTimeout(file, section, "ConnectTimeout", timeouts_.connect, blnReport);
            readTimeout(file, section, "QueryTimeout", timeouts_.query, blnReport);
        } else if (equalsIgnoringCase(std::string_view(section).substr(0, 4), "DAHS")) {
            readEntry(file, section, blnReport);
        }
    }
    if (logFolder_.empty()) {
        report(blnReport, "[System]: LogFolder is missing; logs go to the root folder");
    }
    if (entries_.empty()) {
        report(blnReport, "no usable DAHS entry");
    }
    return !entries_.empty();
}

std::optional<std::string> SystemINI::readFile(bool blnReport) const {
    std::ifstream stream(strPath_, std::ios::binary);
    if (!stream) {
        report(blnReport, fmt::format("cannot be opened: {}", std::strerror(errno)));
        return std::nullopt;
    }
    std::string contents(maxFileSize + 1, '\0');
    stream.read(contents.data(), static_cast<std::streamsize>(contents.size()));
    if (stream.bad() || (stream.fail() && !stream.eof())) {
        report(blnReport, "cannot be read");
        return std::nullopt;
    }
    contents.resize(static_cast<std::size_t>(stream.gcount()));
    if (contents.size() > maxFileSize) {
        report(blnReport, fmt::format("larger than {} bytes", maxFileSize));
        return std::nullopt;
    }
    return contents;
}

// The INI library stops at a NUL, and lets the lines under a heading without "]" join the section before, where they
// would overwrite another site's.
void SystemINI::takeOutDamage(std::string& contents, bool blnReport) const {
    std::replace(contents.begin(), contents.end(), '\0', ' ');
    std::string sound;
    sound.reserve(contents.size());
    std::string firstDamaged;
    std::size_t damaged = 0;
    for (std::size_t begin = 0; begin < contents.size();) {
        const std::size_t end = std::min(contents.find_first_of("\r\n", begin), contents.size());
        const std::string_view line = trimSpace(std::string_view(contents).substr(begin, end - begin));
        const bool isDamaged = line.starts_with('[') && line.find(']') == std::string_view::npos;
        if (isDamaged && damaged++ == 0) {
            firstDamaged = shown(line);
        }
        sound.append(isDamaged ? damagedHeading : line).append("\n");
        begin = end + 1;
    }
    contents = std::move(sound);
    if (damaged > 0) {
        report(blnReport, fmt::format("'{}': a heading without ] (there are {}); the lines under it are left out",
                                      firstDamaged, damaged));
    }
}

void SystemINI::readTimeout(const File& file, const std::string& section, std::string_view key,
                            std::chrono::milliseconds& timeout, bool blnReport) const {
    const std::string given = file.value(section, key);
    if (given.empty()) {
        return;
    }
    const std::optional<std::int32_t> seconds = wholeNumber(given);
    if (!seconds || *seconds < 1 || *seconds > longestTimeout) {
        report(blnReport, fmt::format("[System]: {} '{}' is not a number of seconds from 1 to {}; read as {}", key,
                                      shown(given), longestTimeout, timeout / std::chrono::seconds(1)));
        return;
    }
    timeout = std::chrono::seconds(*seconds);
}

void SystemINI::readEntry(const File& file, const std::string& section, bool blnReport) {
    const auto problem = [&](std::string_view text) {
        report(blnReport, fmt::format("[{}]: {}", shown(section), text));
    };

    DAHSEntry entry;
    entry.SiteID = file.value(section, "SiteID");
    if (entry.SiteID.empty()) {
        problem("SiteID is missing; the entry is left out");
        return;
    }
    const std::string number = file.value(section, "DAHSID");
    const std::optional<std::int32_t> dahsID = wholeNumber(number);
    if (!dahsID) {
        problem(fmt::format("DAHSID '{}' is not a 32-bit whole number; the entry is left out", shown(number)));
        return;
    }
    entry.DAHSID = *dahsID;
    for (std::size_t i = 0; i < entry.Connections.size(); ++i) {
        entry.Connections[i] = file.value(section, fmt::format("Connection{}", i + 1));
    }
    const std::string marked = file.value(section, "Default");
    const std::optional<bool> isDefault = yesOrNo(marked);
    if (!isDefault) {
        problem(fmt::format("Default '{}' is neither yes nor no; read as no", shown(marked)));
    }
    entries_.push_back(std::move(entry));
    placements_.push_back(Placement{splitNames(file.value(section, "Computer")), isDefault.value_or(false)});
}

bool SystemINI::SelectDAHS(std::int32_t, bool blnReport) {
    selected_.reset();
    for (std::size_t i = 0; i < placements_.size() && !selected_; ++i) {
        if (namesThisComputer(placements_[i])) {
            selected_ = i;
        }
    }
    for (std::size_t i = 0; i < placements_.size() && !selected_; ++i) {
        if (placements_[i].isDefault) {
            selected_ = i;
        }
    }
    if (!selected_) {
        report(blnReport,
               fmt::format("no DAHS entry names this computer ('{}'), and none is marked as default", strComputer_));
    }
    return selected_.has_value();
}

bool SystemINI::namesThisComputer(const Placement& placement) const {
    for (const std::string& name : placement.computers) {
        if (!strComputer_.empty() && isSameComputer(name, strComputer_)) {
            return true;
        }
    }
    return false;
}

const DAHSEntry& SystemINI::SelectedDAHS() const {
    if (!selected_) {
        throw RuntimeError(errors::objectNotSet);
    }
    return entries_[*selected_];
}

void SystemINI::report(bool blnReport, std::string_view text) const {
    if (blnReport && problems_) {
        problems_(fmt::format("{}: {}", strPath_, text));
    }
}

}  // namespace quelm
