// The system INI file. Damage costs the entry that it stands in: entries before and behind it are read as they are.

#include <sys/mman.h>
#include <unistd.h>

#include "DB Interface Library/SystemINI.h"
#include "FuzzInput.h"

namespace quelm::fuzz {
namespace {

constexpr std::string_view before =
    "[System]\nLogFolder=/var/log/quelm\n[DAHS.Zq7]\nSiteID=first\nDAHSID=1\nConnection1=Driver=SQLite\n";
constexpr std::string_view behind = "\n[DAHS.Xk3]\nSiteID=last\nDAHSID=2\nComputer=quelm01\nConnection2=x;y=\"z\"\n";

// In memory, and of this process only.
int file() {
    static const int descriptor = memfd_create("system_ini", MFD_CLOEXEC);
    return descriptor;
}

void write(const std::string& text) {
    require(ftruncate(file(), 0) == 0, "a file to write to");
    require(pwrite(file(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "room for the file");
}

const DAHSEntry* entryOf(const SystemINI& ini, std::string_view site) {
    for (const DAHSEntry& entry : ini.AllDAHS()) {
        if (entry.SiteID == site) {
            return &entry;
        }
    }
    return nullptr;
}

void readAlone(SystemINI& ini) {
    require(ini.ReadINI(0, true) == !ini.AllDAHS().empty(), "true with an entry and only then");
    for (const DAHSEntry& entry : ini.AllDAHS()) {
        require(!entry.SiteID.empty(), "every entry has a site");
    }
    mayRaise({errors::objectNotSet}, "nothing selected and nothing else", [&] {
        const bool selected = ini.SelectDAHS(0, true);
        const DAHSEntry& entry = ini.SelectedDAHS();
        require(selected && entryOf(ini, entry.SiteID) != nullptr, "what is selected is an entry");
    });
}

void readBetweenSoundEntries(SystemINI& ini) {
    require(ini.ReadINI(0, true), "the sound entries are there");
    require(ini.LogFolder() == "/var/log/quelm", "the log folder is there");
    const DAHSEntry* first = entryOf(ini, "first");
    require(first != nullptr && first->DAHSID == 1 && first->Connections[0] == "Driver=SQLite" &&
                first->Connections[1].empty(),
            "the entry before the damage is as it was");
    const DAHSEntry* last = entryOf(ini, "last");
    require(last != nullptr && last->DAHSID == 2 && last->Connections[1] == "x;y=\"z\"",
            "the entry behind the damage is as it was");
}

bool mentions(const std::string& text, std::initializer_list<std::string_view> words) {
    return std::any_of(words.begin(), words.end(),
                       [&text](std::string_view word) { return text.find(word) != std::string::npos; });
}

}  // namespace

void runInput(Input input) {
    const Bytes rest = input.rest();
    const std::string text(rest.begin(), rest.end());
    SystemINI ini("/proc/self/fd/" + std::to_string(file()), "quelm01.plant.example", [](std::string_view line) {
        require(line.find_first_of("\r\n") == std::string_view::npos, "a problem is one line");
        require(line.size() < 2000, "a problem is of a sane length");
    });
    write(text);
    readAlone(ini);
    // Between two sound entries, as a damaged one of its own.
    std::string folded = text;
    std::transform(folded.begin(), folded.end(), folded.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
    if (text.starts_with('[') && !mentions(folded, {"system", "zq7", "xk3", "first", "last"})) {
        write(std::string(before) + text + std::string(behind));
        readBetweenSoundEntries(ini);
    }
}

}  // namespace quelm::fuzz
