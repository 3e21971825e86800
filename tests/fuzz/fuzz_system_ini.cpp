// The system INI file. Damage costs the entry that it stands in: entries before and behind it are read as they are.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "DB Interface Library/SystemINI.h"
#include "FuzzInput.h"
#include "Shared Types/RuntimeError.h"

namespace quelm::fuzz {
namespace {

constexpr std::string_view before =
    "[System]\nLogFolder=/var/log/quelm\n[DAHS.Zq7]\nSiteID=first\nDAHSID=1\nConnection1=Driver=SQLite\n";
constexpr std::string_view behind = "\n[DAHS.Xk3]\nSiteID=last\nDAHSID=2\nComputer=quelm01\nConnection2=x;y=\"z\"\n";

// In memory, and of this process only.
class TemporaryFile {
 public:
    TemporaryFile() : path_("/dev/shm/quelm_fuzz_ini_" + std::to_string(getpid())) {}
    ~TemporaryFile() { std::remove(path_.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }
    void write(const std::string& text) const {
        std::FILE* file = std::fopen(path_.c_str(), "wb");
        require(file != nullptr, "a file to write to");
        require(std::fwrite(text.data(), 1, text.size(), file) == text.size(), "room for the file");
        std::fclose(file);
    }

 private:
    std::string path_;
};

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
    try {
        const bool selected = ini.SelectDAHS(0, true);
        const DAHSEntry& entry = ini.SelectedDAHS();
        require(selected && entryOf(ini, entry.SiteID) != nullptr, "what is selected is an entry");
    } catch (const RuntimeError& error) {
        require(error.number() == errors::objectNotSet, "nothing selected and nothing else");
    }
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

void runInput(Input input) {
    static const TemporaryFile file;
    const Bytes rest = input.rest();
    const std::string text(rest.begin(), rest.end());
    SystemINI ini(file.path(), "quelm01.plant.example", [](std::string_view line) {
        require(line.find_first_of("\r\n") == std::string_view::npos, "a problem is one line");
        require(line.size() < 2000, "a problem is of a sane length");
    });
    file.write(text);
    readAlone(ini);
    // Between two sound entries, as a damaged one of its own.
    std::string folded = text;
    std::transform(folded.begin(), folded.end(), folded.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
    if (text.starts_with('[') && !mentions(folded, {"system", "zq7", "xk3", "first", "last"})) {
        file.write(std::string(before) + text + std::string(behind));
        readBetweenSoundEntries(ini);
    }
}

}  // namespace
}  // namespace quelm::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    quelm::fuzz::runInput({data, size});
    return 0;
}
