#pragma once

// The system INI file: "Quelm.ini", found by the environment variable QUELM_INI, else in /etc/quelm.
//
//   [System]            [DAHS.1]  (any section whose name starts with DAHS, in file order)
//   LogFolder=...       SiteID=, DAHSID=, Computer=name,name, Default=yes, Connection1= to Connection5=
//   ConnectTimeout=, QueryTimeout= in whole seconds, 1 to 300

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DB Interface Library/ISystemINI.h"
#include "DB Interface Library/ProblemSink.h"

namespace quelm {

// Where the file is on this computer.
std::string systemIniPath();
// This computer's name as the operating system has it, short or full.
std::string thisComputer();

class SystemINI final : public ISystemINI {
 public:
    SystemINI(std::string strPath, std::string strComputer, ProblemSink problems)
        : strPath_(std::move(strPath)), strComputer_(std::move(strComputer)), problems_(std::move(problems)) {}

    // A damaged entry is left out with a line of what is wrong with it, so that it costs its own site only.
    bool ReadINI(std::int32_t lngReserved, bool blnReport) override;
    bool SelectDAHS(std::int32_t lngReserved, bool blnReport) override;
    const DAHSEntry& SelectedDAHS() const override;
    const std::vector<DAHSEntry>& AllDAHS() const override { return entries_; }
    std::string LogFolder() const override { return logFolder_; }
    SqlTimeouts DatabaseTimeouts() const override { return timeouts_; }

    // A file beyond this size (bytes) is not read.
    static constexpr std::size_t maxFileSize = std::size_t{4} << 20;

 private:
    // What says for which computer an entry is; in step with entries_.
    struct Placement {
        std::vector<std::string> computers;
        bool isDefault = false;
    };
    class File;

    std::optional<std::string> readFile(bool blnReport) const;
    void takeOutDamage(std::string& contents, bool blnReport) const;
    void readTimeout(const File& file, const std::string& section, std::string_view key,
                     std::chrono::milliseconds& timeout, bool blnReport) const;
    void readEntry(const File& file, const std::string& section, bool blnReport);
    bool namesThisComputer(const Placement& placement) const;
    void report(bool blnReport, std::string_view text) const;

    std::string strPath_;
    std::string strComputer_;
    ProblemSink problems_;
    std::string logFolder_;
    SqlTimeouts timeouts_;
    std::vector<DAHSEntry> entries_;
    std::vector<Placement> placements_;
    std::optional<std::size_t> selected_;
};

}  // namespace quelm
