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
    virtual void Close() = 0;
};

}  // namespace quelm
