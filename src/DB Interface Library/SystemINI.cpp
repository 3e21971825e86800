#include "DB Interface Library/SystemINI.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/RuntimeError.h"
#include "base/Text.h"

namespace quelm {

namespace {

constexpr std::array<std::string_view, 4> systemKeys = {"LogFolder", "KeepLogs", "ConnectTimeout", "QueryTimeout"};
constexpr std::array<std::string_view, 5> connectionKeys = {"Connection1", "Connection2", "Connection3", "Connection4",
                                                            "Connection5"};
constexpr std::array<std::string_view, 9> entryKeys = {"SiteID",      "DAHSID",      "Computer",
                                                       "Default",     "Connection1", "Connection2",
                                                       "Connection3", "Connection4", "Connection5"};
constexpr std::size_t mostDetails = 50;  // a file of another kind must not swamp the log
// Seconds: beyond this nobody waits for a display to move on.
constexpr std::int32_t longestTimeout = 300;
constexpr std::int32_t mostLogDays = 36'500;

bool isKnown(std::span<const std::string_view> known, std::string_view name) {
    return std::any_of(known.begin(), known.end(), [&](auto key) { return equalsIgnoringCase(key, name); });
}

// "" for a key that the section does not have.
std::string valueOf(const IniFile::Section& section, std::string_view key) {
    const IniFile::Key* found = section.find(key);
    return found == nullptr ? std::string() : std::string(found->value);
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
    for (const std::string_view name : splitAtCommas(list)) {
        if (!name.empty()) {
            names.emplace_back(name);
        }
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

bool SystemINI::ReadINI(std::int32_t, bool blnReport) {
    logFolder_.clear();
    keepLogs_ = 0;
    timeouts_ = {};
    entries_.clear();
    placements_.clear();
    selected_.reset();
    details_ = 0;

    const std::optional<std::string> contents = readFile(blnReport);
    if (!contents) {
        return false;
    }
    const IniFile file(*contents);
    for (const IniFile::Fault& fault : file.faults()) {
        reportDetail(blnReport, fmt::format("line {}: {}. {}.", fault.line, fault.what, fault.remedy));
    }
    IniFile::Section system;
    for (const IniFile::Section& section : file.sections()) {
        if (equalsIgnoringCase(section.name, "System")) {
            system.keys.insert(system.keys.end(), section.keys.begin(), section.keys.end());
        } else if (equalsIgnoringCase(section.name.substr(0, 4), "DAHS")) {
            readEntry(section, blnReport);
        } else {
            reportDetail(blnReport, fmt::format("line {}: lines in no section that is read ('{}') are left out. Use "
                                                "[System] and [DAHS...].",
                                                section.line, shownSetting(section.name)));
        }
    }
    readSystem(system, blnReport);
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

void SystemINI::readSystem(const IniFile::Section& section, bool blnReport) {
    logFolder_ = valueOf(section, "LogFolder");
    checkKeys(section, systemKeys, "the first counts", blnReport);
    readKeepLogs(section, blnReport);
    readTimeout(section, "ConnectTimeout", timeouts_.connect, blnReport);
    readTimeout(section, "QueryTimeout", timeouts_.query, blnReport);
}

bool SystemINI::checkKeys(const IniFile::Section& section, std::span<const std::string_view> known,
                          std::string_view outcome, bool blnReport) {
    bool isUnambiguous = true;
    const auto name = section.name.empty() ? "System" : section.name;  // the sections [System] are read as one
    for (const IniFile::Key& key : section.keys) {
        if (!isKnown(known, key.name)) {
            reportDetail(blnReport, fmt::format("[{}]: there is no key '{}' (line {}), it is left out",
                                                shownSetting(name), shownSetting(key.name), key.line));
        }
    }
    for (const IniFile::Repeat& repeat : IniFile::repeats(section)) {
        const bool isContradiction = repeat.isContradiction() && isKnown(known, repeat.first->name);
        isUnambiguous = isUnambiguous && !isContradiction;
        reportDetail(blnReport, fmt::format("[{}]: {} stands twice (lines {} and {}){}", shownSetting(name),
                                            shownSetting(repeat.first->name), repeat.first->line, repeat.again->line,
                                            isContradiction ? ", with two values; " + std::string(outcome) : ""));
    }
    return isUnambiguous;
}

void SystemINI::readTimeout(const IniFile::Section& section, std::string_view key, std::chrono::milliseconds& timeout,
                            bool blnReport) const {
    const std::string given = valueOf(section, key);
    if (given.empty()) {
        return;
    }
    const std::optional<std::int32_t> seconds = wholeNumber(given);
    if (!seconds || *seconds < 1 || *seconds > longestTimeout) {
        report(blnReport, fmt::format("[System]: {} '{}' is not a number of seconds from 1 to {}; read as {}", key,
                                      shownSetting(given), longestTimeout, timeout / std::chrono::seconds(1)));
        return;
    }
    timeout = std::chrono::seconds(*seconds);
}

// What is no number of days removes nothing.
void SystemINI::readKeepLogs(const IniFile::Section& section, bool blnReport) {
    const std::string given = valueOf(section, "KeepLogs");
    const std::optional<std::int32_t> days = wholeNumber(given);
    if (days && *days >= 1 && *days <= mostLogDays) {
        keepLogs_ = *days;
    } else if (!given.empty()) {
        report(blnReport, fmt::format("[System]: KeepLogs '{}' is not a number of days from 1 to {}; all logs are kept",
                                      shownSetting(given), mostLogDays));
    }
}

void SystemINI::readEntry(const IniFile::Section& section, bool blnReport) {
    const auto problem = [&](std::string_view text) {
        report(blnReport, fmt::format("[{}]: {}", shownSetting(section.name), text));
    };
    if (section.isRepeated()) {
        reportDetail(blnReport, fmt::format("[{}]: two sections have this name (lines {} and {}); each is an entry of "
                                            "its own",
                                            shownSetting(section.name), section.firstLine, section.line));
    }
    // Which of two values is meant cannot be told, and the wrong database's values must not pass for the site's.
    if (!checkKeys(section, entryKeys, "the entry is left out", blnReport)) {
        return;
    }
    DAHSEntry entry;
    entry.SiteID = valueOf(section, "SiteID");
    if (entry.SiteID.empty()) {
        problem("SiteID is missing; the entry is left out");
        return;
    }
    const std::string number = valueOf(section, "DAHSID");
    const std::optional<std::int32_t> dahsID = wholeNumber(number);
    if (!dahsID) {
        problem(fmt::format("DAHSID '{}' is not a 32-bit whole number; the entry is left out", shownSetting(number)));
        return;
    }
    entry.DAHSID = *dahsID;
    for (std::size_t i = 0; i < entry.Connections.size(); ++i) {
        entry.Connections[i] = valueOf(section, connectionKeys[i]);
    }
    const std::string marked = valueOf(section, "Default");
    const std::optional<bool> isDefault = yesOrNo(marked);
    if (!isDefault) {
        problem(fmt::format("Default '{}' is neither yes nor no; read as no", shownSetting(marked)));
    }
    entries_.push_back(std::move(entry));
    placements_.push_back(Placement{splitNames(valueOf(section, "Computer")), isDefault.value_or(false)});
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

void SystemINI::reportDetail(bool blnReport, std::string_view text) {
    if (details_ < mostDetails) {
        report(blnReport, text);
    } else if (details_ == mostDetails) {
        report(blnReport, "further faults are not listed. Check that this is the right file.");
    }
    ++details_;
}

void SystemINI::report(bool blnReport, std::string_view text) const {
    if (blnReport && problems_) {
        problems_(fmt::format("{}: {}", strPath_, text));
    }
}

}  // namespace quelm
