#pragma once

// A log file on disk. Every line, or so many of a list together, is handed to the operating system at once and in one
// piece, so that neither the end of this program nor a second reader or writer can tear one.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Messages/ILogWriter.h"

namespace quelm {

// Where the lines go that the file does not take, so that nothing falls silent with it.
struct LogTrouble {
    std::function<void(std::string_view)> problem;  // once for each spell: path, reason and remedy
    std::function<void(std::string_view)> line;     // every line meanwhile
};

class LogWriter final : public ILogWriter {
 public:
    explicit LogWriter(LogTrouble trouble = {}) : trouble_(std::move(trouble)) {}
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;
    ~LogWriter() override { closeFile(); }

    // strTitle is for logs that are kept elsewhere than in a file; the file begins with its first entry.
    bool Open(std::string_view strFilePath, std::string_view strTitle, bool blnOverwrite, bool blnTimeStamps) override;
    // Line breaks within the text become blanks.
    void WriteEntry(std::string_view strText, bool blnFlag = false) override;
    void CollectLines(bool blnOn) override;
    void Close() override;

    // Milliseconds between two attempts to open a file that could not be opened or written.
    static constexpr std::uint64_t retryAfter = 1000;

 private:
    bool openFile();
    void closeFile();
    void buildLine(std::string_view strText);
    void appendTimeStamp();
    void writeLines();
    bool hasWritten();
    void loseLine(std::string_view text);
    void tellTrouble();

    LogTrouble trouble_;
    std::string path_;
    bool overwrite_ = false;
    bool timeStamps_ = false;
    int file_ = -1;
    std::uint64_t retryAt_ = 0;
    std::uint64_t lostLines_ = 0;
    bool lineTorn_ = false;
    bool isTroubled_ = false;
    bool collects_ = false;
    std::string lines_;  // to be written
    // Where the texts stand in them, and the ends of their lines.
    struct Text {
        std::size_t begin;
        std::size_t end;
    };
    std::vector<Text> texts_;
    std::size_t written_ = 0;  // of the lines
    // The latest time stamp as text, and its UTC milliseconds.
    std::string stamp_;
    std::int64_t stampTime_ = -1;
};

}  // namespace quelm
