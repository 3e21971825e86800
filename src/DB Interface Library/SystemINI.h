#pragma once

// The system INI file: "Quelm.ini", found by the environment variable QUELM_INI, else in /etc/quelm.
//
//   [System]            [DAHS.1]  (any section whose name starts with DAHS, in file order)
//   LogFolder=...       SiteID=, DAHSID=, Computer=name,name, Default=yes, Connection1= to Connection5=
//   ConnectTimeout=, QueryTimeout= in whole seconds, 1 to 300; KeepLogs= in whole days, 1 to 36500

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/ISystemINI.h"
#include "DB Interface Library/ProblemSink.h"
#include "base/IniFile.h"

namespace quelm {

// Where the file is on this computer.
std::string systemIniPath();
// This computer's name as the operating system has it, short or full.
std::string thisComputer();

class SystemINI final : public ISystemINI {
 public:
    SystemINI(std::string strPath, std::string strComputer, ProblemSink problems)
        : strPath_(std::move(strPath)), strComputer_(std::move(strComputer)), problems_(std::move(problems)) {}

    // A damaged entry is left out with a line of what is wrong with it, so that it costs its own site only. Two
    // sections of one name are two entries; a key that stands in an entry with two values costs it. What is unknown, or
    // stands twice, is named.
    bool ReadINI(std::int32_t lngReserved, bool blnReport) override;
    bool SelectDAHS(std::int32_t lngReserved, bool blnReport) override;
    const DAHSEntry& SelectedDAHS() const override;
    const std::vector<DAHSEntry>& AllDAHS() const override { return entries_; }
    std::string LogFolder() const override { return logFolder_; }
    std::int32_t KeepLogs() const override { return keepLogs_; }
    SqlTimeouts DatabaseTimeouts() const override { return timeouts_; }

    // A file beyond this size (bytes) is not read.
    static constexpr std::size_t maxFileSize = std::size_t{4} << 20;

 private:
    // What says for which computer an entry is; in step with entries_.
    struct Placement {
        std::vector<std::string> computers;
        bool isDefault = false;
    };

    std::optional<std::string> readFile(bool blnReport) const;
    void readSystem(const IniFile::Section& section, bool blnReport);
    void readTimeout(const IniFile::Section& section, std::string_view key, std::chrono::milliseconds& timeout,
                     bool blnReport) const;
    void readKeepLogs(const IniFile::Section& section, bool blnReport);
    void readEntry(const IniFile::Section& section, bool blnReport);
    // False when a key has two values. outcome: what then becomes of them, for the message.
    bool checkKeys(const IniFile::Section& section, std::span<const std::string_view> known, std::string_view outcome,
                   bool blnReport);
    void reportDetail(bool blnReport, std::string_view text);
    bool namesThisComputer(const Placement& placement) const;
    void report(bool blnReport, std::string_view text) const;

    std::string strPath_;
    std::string strComputer_;
    ProblemSink problems_;
    std::string logFolder_;
    std::int32_t keepLogs_ = 0;
    SqlTimeouts timeouts_;
    std::vector<DAHSEntry> entries_;
    std::vector<Placement> placements_;
    std::optional<std::size_t> selected_;
    std::size_t details_ = 0;
};

}  // namespace quelm
