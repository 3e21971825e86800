#pragma once

// One log file: opened once, written a line at a time, closed. No operation throws; a folder that is missing or
// not writable and a full disk cost log lines, never the server.

#include <memory>
#include <string_view>

namespace quelm {

class ILogWriter {
 public:
    virtual ~ILogWriter() = default;
    // strFilePath may use backslashes as separators; a missing folder is created. blnOverwrite False appends to an
    // existing file; blnTimeStamps True puts the local time with milliseconds before each line.
    // False when the file cannot be opened; later writes then try again.
    virtual bool Open(std::string_view strFilePath, std::string_view strTitle, bool blnOverwrite,
                      bool blnTimeStamps) = 0;
    // blnFlag marks the lines that matter most: they reach the disk at once.
    virtual void WriteEntry(std::string_view strText, bool blnFlag = false) = 0;
    // From true to false lines without a flag may wait for each other in memory, some 64 KiB of them at most: for
    // lists, whose single lines help nobody when the process is killed.
    virtual void CollectLines(bool /*blnOn*/) {}
    virtual void Close() = 0;
};

}  // namespace quelm
